#include "AgentTestSupport.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "TestSupport/WaitFor.h"

extern char** environ;

namespace AgentTest {

std::string Built::TestModule(const std::string& variant)
{
    return std::string(BRACKMOOR_TEST_MODULE_DIR) + "/libagent_test_module_" + variant + ".so";
}

void CopyFile(const std::string& from, const std::string& to, unsigned int mode)
{
    std::filesystem::create_directories(std::filesystem::path(to).parent_path());
    std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
    ::chmod(to.c_str(), static_cast<mode_t>(mode));
}

void WriteFile(const std::string& path, const std::string& content, unsigned int mode)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    ::chmod(path.c_str(), static_cast<mode_t>(mode));
}

std::vector<std::string> ReadLines(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

bool FileContains(const std::string& path, const std::string& text)
{
    return TestSupport::ReadWholeFile(path).find(text) != std::string::npos;
}

AgentProcess::AgentProcess(const std::vector<std::string>& args, const std::map<std::string, std::string>& env,
                           const std::string& outputDir)
{
    static std::atomic<int> started(0);
    const std::string suffix = std::to_string(++started);
    stdoutPath = outputDir + "/agent.stdout." + suffix;
    stderrPath = outputDir + "/agent.stderr." + suffix;
    std::vector<std::string> argStrings;
    argStrings.push_back(Built::Agent());
    argStrings.insert(argStrings.end(), args.begin(), args.end());
    std::vector<std::string> envStrings;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        if (env.count(text.substr(0, text.find('='))) == 0) {
            envStrings.push_back(text);
        }
    }
    for (const auto& [key, value] : env) {
        envStrings.push_back(key + "=" + value);
    }
    std::vector<char*> argv;
    for (std::string& arg : argStrings) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (std::string& entry : envStrings) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, stdoutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    // The test runner may block signals of its own; the agent starts with a clean mask.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    if (posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), envp.data()) != 0) {
        pid = -1;
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
}

AgentProcess::~AgentProcess()
{
    if (pid > 0 && !exited) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    ::unlink(stdoutPath.c_str());
    ::unlink(stderrPath.c_str());
}

void AgentProcess::Signal(int number) const
{
    if (pid > 0 && !exited) {
        kill(pid, number);
    }
}

int AgentProcess::Wait(std::chrono::milliseconds timeout)
{
    if (pid <= 0) {
        return -1;
    }
    TestSupport::WaitFor(
        [this] {
            int raw = 0;
            if (!exited && waitpid(pid, &raw, WNOHANG) == pid) {
                exited = true;
                status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
            }
            return exited;
        },
        timeout);
    return exited ? status : -1;
}

std::string AgentProcess::Stdout() const
{
    return TestSupport::ReadWholeFile(stdoutPath);
}

std::string AgentProcess::Stderr() const
{
    return TestSupport::ReadWholeFile(stderrPath);
}

int RunAgent(const std::vector<std::string>& args, const std::string& outputDir, std::string& out,
             std::string& err, std::chrono::milliseconds timeout)
{
    AgentProcess process(args, {}, outputDir);
    const int status = process.Wait(timeout);
    out = process.Stdout();
    err = process.Stderr();
    return status;
}

} // namespace AgentTest
