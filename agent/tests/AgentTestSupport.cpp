#include "AgentTestSupport.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>

#include "TestSupport/TempDir.h"
#include "TestSupport/WaitFor.h"

namespace AgentTest {

std::string TestModule(const std::string& variant)
{
    return std::string(BRACKMOOR_TEST_MODULE_DIR) + "/libagent_test_module_" + variant + ".so";
}

void WriteFile(const std::string& path, const std::string& content, unsigned int mode)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    ::chmod(path.c_str(), static_cast<mode_t>(mode));
}

void CopyFile(const std::string& from, const std::string& to, unsigned int mode)
{
    WriteFile(to, TestSupport::ReadWholeFile(from), mode);
}

bool FileContains(const std::string& path, const std::string& text)
{
    return TestSupport::ReadWholeFile(path).find(text) != std::string::npos;
}

bool Eventually(const std::string& path, const std::string& text, std::chrono::milliseconds timeout)
{
    return TestSupport::WaitFor([&] { return FileContains(path, text); }, timeout);
}

std::string ConfigText(const std::string& dir, const std::string& agentLine, const std::string& module,
                       const std::string& feature)
{
    return "[agent]\nid = agent-7\n" + agentLine + "\npid_file = " + dir + "/agent.pid\nstate_dir = " + dir + "/state\n"
           "[service]\naddress = 127.0.0.1:9\nca_file = " + dir + "/ca.pem\n"
           "auth_token_file = " + dir + "/token\nconnect_timeout = 5\n"
           "[log]\ndir = " + dir + "/log\nlevel = information\n"
           "[policy.tfa]\nfile = " + dir + "/tfa.json\nmodule = " + module + "\ncallback = 10001\n"
           "feature = " + feature + "\n";
}

AgentProcess::AgentProcess(const std::vector<std::string>& args, const std::string& outputDir)
{
    static std::atomic<int> started(0);
    const std::string suffix = std::to_string(++started);
    stdoutPath = outputDir + "/agent.stdout." + suffix;
    stderrPath = outputDir + "/agent.stderr." + suffix;
    std::vector<std::string> argStrings = {BRACKMOOR_AGENT_BINARY};
    argStrings.insert(argStrings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : argStrings) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    pid = fork();
    if (pid == 0) {
        // Only async-signal-safe calls here. The agent starts with a clean
        // signal mask whatever the test runner blocks.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        const int out = open(stdoutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = open(stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (out >= 0 && err >= 0 && dup2(out, STDOUT_FILENO) >= 0 && dup2(err, STDERR_FILENO) >= 0) {
            execv(argv[0], argv.data());
        }
        _exit(127);
    }
}

AgentProcess::~AgentProcess()
{
    if (pid > 0 && !exited) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

void AgentProcess::Signal(int number) const
{
    if (pid > 0 && !exited) {
        kill(pid, number);
    }
}

int AgentProcess::Wait(std::chrono::milliseconds timeout)
{
    TestSupport::WaitFor(
        [this] {
            int raw = 0;
            if (pid > 0 && !exited && waitpid(pid, &raw, WNOHANG) == pid) {
                exited = true;
                status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
            }
            return exited;
        },
        timeout);
    return exited ? status : -1;
}

AgentRun RunAgent(const std::vector<std::string>& args, const std::string& outputDir)
{
    AgentProcess process(args, outputDir);
    const int status = process.Wait(std::chrono::seconds(30));
    return {status, process.Stdout(), process.Stderr()};
}

} // namespace AgentTest
