#pragma once
// Support of the agent's suites: files, configurations, the agent binary run as a child process.
#include <fcntl.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>

#include <gmock/gmock.h>
#include <sstream>

#include "CommandLine.h"
#include "TestSupport/TempDir.h"
#include "TestSupport/WaitFor.h"
#include "status/StatusCommand.h"

namespace AgentTest {

using TestSupport::ReadWholeFile;

/// Writes `content` to `path` with `mode`, creating the parent directories.
inline void WriteFile(const std::string& path, const std::string& content, unsigned int mode = 0644)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    ::chmod(path.c_str(), static_cast<mode_t>(mode));
}

/// Waits until `path` contains `text`: how tests follow a running agent.
inline bool Eventually(const std::string& path, const std::string& text)
{
    const auto found = [&] { return ReadWholeFile(path).find(text) != std::string::npos; };
    return TestSupport::WaitFor(found, std::chrono::seconds(30));
}

/// A complete agent configuration with its files in `dir` and one feed, [policy.tfa] from `dir`/tfa.json
/// to `module`; `agentLine` is the third line of [agent], where the modules are.
inline std::string ConfigText(const std::string& dir, const std::string& agentLine, const std::string& module,
                              const std::string& feature)
{
    return "[agent]\nid = agent-7\n" + agentLine + "\npid_file = " + dir + "/agent.pid\nstate_dir = " + dir +
           "/state\n[service]\naddress = 127.0.0.1:9\nca_file = " + dir + "/ca.pem\nauth_token_file = " + dir +
           "/token\nconnect_timeout = 5\n[log]\ndir = " + dir + "/log\nlevel = information\n[policy.tfa]\nfile = " +
           dir + "/tfa.json\nmodule = " + module + "\ncallback = 10001\nfeature = " + feature + "\n";
}

/// brackmoor-agent started with `args` and the test's environment, its standard output and error
/// kept in files of `dir`; killed and reaped if still running when destroyed.
class AgentProcess {
public:
    AgentProcess(std::vector<std::string> args, const std::string& dir)
        : out(dir + "/agent.out." + std::to_string(++started)), err(dir + "/agent.err." + std::to_string(started))
    {
        args.insert(args.begin(), BRACKMOOR_AGENT_BINARY);
        std::vector<char*> argv;
        for (std::string& arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        if ((pid = fork()) == 0) {
            // Only async-signal-safe calls here. The agent starts with a clean signal mask.
            sigset_t none;
            sigemptyset(&none);
            sigprocmask(SIG_SETMASK, &none, nullptr);
            const int outFd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            const int errFd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (outFd >= 0 && errFd >= 0 && dup2(outFd, STDOUT_FILENO) >= 0 && dup2(errFd, STDERR_FILENO) >= 0) {
                execv(argv[0], argv.data());
            }
            _exit(127);
        }
    }
    ~AgentProcess()
    {
        Signal(SIGKILL);
        Wait(std::chrono::seconds(30));
    }

    pid_t Pid() const { return pid; }
    void Signal(int number) const
    {
        if (status == kRunning) {
            kill(pid, number);
        }
    }
    /// Its exit status once it exits within `timeout`; -1 while it runs or when a signal ended it.
    int Wait(std::chrono::milliseconds timeout)
    {
        const auto exited = [this] {
            int raw = 0;
            if (status == kRunning && waitpid(pid, &raw, WNOHANG) == pid) {
                status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
            }
            return status != kRunning;
        };
        return TestSupport::WaitFor(exited, timeout) ? status : -1;
    }
    std::string Stdout() const { return ReadWholeFile(out); }
    std::string Stderr() const { return ReadWholeFile(err); }

private:
    static constexpr int kRunning = -2;
    static inline std::atomic<int> started{0};
    const std::string out, err;
    pid_t pid = -1;
    int status = kRunning;
};

/// The status command on the tree `root` with `sshd`, for `user`'s connection if named: exit status and output.
inline std::pair<int, std::string> RunStatus(const std::string& root, const std::string& sshd, std::string user = "")
{
    std::vector<std::string> args = {"status", "--root", root, "--sshd", sshd};
    if (!user.empty()) {
        args.insert(args.end(), {"--user", user});
    }
    std::ostringstream out;
    const int status = Agent::StatusCommand::Run(Agent::CommandLine::Parse(args), out);
    return {status, out.str()};
}

/// Runs the agent to its end: exit status (-1 when it did not end within 30 s), standard output and error.
inline std::tuple<int, std::string, std::string> RunAgent(const std::vector<std::string>& args, const std::string& dir)
{
    AgentProcess process(args, dir);
    const int status = process.Wait(std::chrono::seconds(30));
    return {status, process.Stdout(), process.Stderr()};
}

} // namespace AgentTest
