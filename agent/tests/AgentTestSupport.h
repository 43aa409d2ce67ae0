#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "TestSupport/TempDir.h"

namespace AgentTest {

/// Paths of the build's artefacts, set by CMake.
struct Built {
    static std::string Agent() { return BRACKMOOR_AGENT_BINARY; }
    /// A test module library of the given variant (alpha, beta, init_throws,
    /// factory_null, no_factory).
    static std::string TestModule(const std::string& variant);
};

/// Copies `from` to `to` with `mode`, creating the parent directories.
void CopyFile(const std::string& from, const std::string& to, unsigned int mode = 0755);

/// Writes `content` to `path` with `mode`, creating the parent directories.
void WriteFile(const std::string& path, const std::string& content, unsigned int mode = 0644);

/// The lines of `path` (empty when it does not exist).
std::vector<std::string> ReadLines(const std::string& path);

/// Whether `path`'s content contains `text`.
bool FileContains(const std::string& path, const std::string& text);

/// A brackmoor-agent process started by a test: standard output and error go
/// to files; killed (SIGKILL) and reaped if still running when destroyed.
class AgentProcess {
public:
    /// Starts the agent binary with `args`; `env` is added to the environment.
    AgentProcess(const std::vector<std::string>& args, const std::map<std::string, std::string>& env,
                 const std::string& outputDir);
    ~AgentProcess();

    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;

    bool Started() const { return pid > 0; }
    pid_t Pid() const { return pid; }
    void Signal(int number) const;
    /// Waits until it exits; its exit status, or -1 when it did not exit in
    /// time (or died of a signal).
    int Wait(std::chrono::milliseconds timeout);
    bool Exited() const { return exited; }

    std::string Stdout() const;
    std::string Stderr() const;

private:
    pid_t pid = -1;
    bool exited = false;
    int status = -1;
    std::string stdoutPath;
    std::string stderrPath;
};

/// Runs the agent binary to its end (at most `timeout`); its exit status.
int RunAgent(const std::vector<std::string>& args, const std::string& outputDir, std::string& out,
             std::string& err, std::chrono::milliseconds timeout = std::chrono::seconds(30));

} // namespace AgentTest
