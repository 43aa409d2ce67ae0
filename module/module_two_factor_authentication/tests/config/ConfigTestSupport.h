#pragma once

#include <memory>
#include <string>
#include <vector>

#include <Poco/Logger.h>
#include <gtest/gtest.h>

#include "TestSupport/CapturingChannel.h"
#include "TestSupport/TempDir.h"
#include "TwoFactorAuthenticationTask.h"

namespace ConfigTest {

/// Log records as ModuleLogCapture::Records() gives them.
using Records = std::vector<std::string>;

/// Records what the module logger writes while it lives, at every priority;
/// puts the logger's former channel and level back afterwards.
class ModuleLogCapture {
public:
    /// `root`: a directory whose path reads "ROOT" in Records(), so that expected texts stay fixed.
    explicit ModuleLogCapture(std::string root = "");
    ~ModuleLogCapture();
    ModuleLogCapture(const ModuleLogCapture&) = delete;
    ModuleLogCapture& operator=(const ModuleLogCapture&) = delete;

    /// Every record, oldest first, as "<priority letter> <text>" ("E", "W", "I", ...); a record
    /// that does not name the task's source file and a line gets " (not from the task)" appended.
    ConfigTest::Records Records() const;
    void Clear() { channel->Clear(); }

private:
    std::string root;
    Poco::Logger* logger;
    TestSupport::CapturingChannel::Ptr channel;
    Poco::AutoPtr<Poco::Channel> formerChannel;
    int formerLevel;
};

/// An agent installation in a temporary directory, made the agent's
/// configured installation path: a restart script that only counts its runs
/// (and fails) and a stand-in PAM module file.
class StandInInstallation {
public:
    /// `moduleSource`: file to install as module/pam_brackmoor.so; a line of text when empty.
    explicit StandInInstallation(const std::string& moduleSource = "");
    /// Leaves the installation path empty, never the default one whose
    /// script would restart this machine's sshd.
    ~StandInInstallation() { Unset(); }

    /// Makes the installation path unknown.
    void Unset();
    /// The installation path, with its trailing slash.
    std::string Path() const { return dir.Path() + "/"; }
    /// How often the restart script ran.
    int RestartCount() const;

private:
    TestSupport::TempDir dir;
};

inline std::string ReadText(const std::string& path)
{
    return TestSupport::ReadWholeFile(path);
}
/// Writes `text` to `path`, creating missing parent directories.
void WriteText(const std::string& path, const std::string& text);
/// Lines of `text` (a last line without "\n" counts).
std::vector<std::string> Lines(const std::string& text);
/// How a rewritten configuration file reads: every line trimmed at both
/// ends, blank-only lines emptied, every line ending with "\n".
std::string Normalise(const std::string& text);

/// A task whose configuration paths point into `root`: root/sshd_config and
/// root/pam.d/{sshd,brackmoor-auth}, the layout of distributions/ and the corpus.
std::unique_ptr<Engine::TwoFactorAuthenticationTask> TaskIn(const std::string& root);

/// A task whose configuration files lie in a fresh temporary directory
/// (TaskIn), a stand-in installation, and the module log with the directory
/// shown as ROOT.
class TaskInTempDir : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(root.Ok()); }

    TestSupport::TempDir root;
    StandInInstallation installation;
    std::unique_ptr<Engine::TwoFactorAuthenticationTask> task = TaskIn(root.Path());
    ModuleLogCapture log{root.Path()};
};

} // namespace ConfigTest
