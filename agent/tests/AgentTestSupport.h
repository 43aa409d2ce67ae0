#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "TestSupport/TempDir.h"

namespace AgentTest {

/// The library of one test module variant (see TestModule.cpp), as built.
std::string TestModule(const std::string& variant);

/// Writes `content` to `path` with `mode`, creating the parent directories.
void WriteFile(const std::string& path, const std::string& content, unsigned int mode = 0644);

/// Copies `from` to `to` with `mode`, creating the parent directories.
void CopyFile(const std::string& from, const std::string& to, unsigned int mode = 0755);

/// Whether the content of `path` contains `text`.
bool FileContains(const std::string& path, const std::string& text);

/// Waits until `path` contains `text`: how tests follow a running agent.
bool Eventually(const std::string& path, const std::string& text,
                std::chrono::milliseconds timeout = std::chrono::seconds(30));

/// A complete agent configuration with its files in `dir` and one feed,
/// [policy.tfa] from `dir`/tfa.json to `module`; `agentLine` is the third
/// line of [agent], where the modules are.
std::string ConfigText(const std::string& dir, const std::string& agentLine, const std::string& module,
                       const std::string& feature);

/// A brackmoor-agent process started by a test with the test's environment,
/// its standard output and error kept in files of `outputDir`; killed and
/// reaped if still running when destroyed.
class AgentProcess {
public:
    AgentProcess(const std::vector<std::string>& args, const std::string& outputDir);
    ~AgentProcess();
    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;

    pid_t Pid() const { return pid; }
    void Signal(int number) const;
    /// Its exit status once it exits within `timeout`; -1 while it runs or
    /// when a signal ended it.
    int Wait(std::chrono::milliseconds timeout);
    std::string Stdout() const { return TestSupport::ReadWholeFile(stdoutPath); }
    std::string Stderr() const { return TestSupport::ReadWholeFile(stderrPath); }

private:
    pid_t pid = -1;
    bool exited = false;
    int status = -1;
    std::string stdoutPath;
    std::string stderrPath;
};

/// What a finished agent run gave.
struct AgentRun {
    int status;  ///< exit status; -1 when it did not end in time
    std::string out;
    std::string err;
};

/// Runs the agent with `args` to its end.
AgentRun RunAgent(const std::vector<std::string>& args, const std::string& outputDir);

} // namespace AgentTest
