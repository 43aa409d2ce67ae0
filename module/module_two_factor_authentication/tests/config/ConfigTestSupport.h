#pragma once

#include <memory>
#include <string>
#include <vector>

#include <Poco/Logger.h>
#include <Poco/Message.h>

#include "TestSupport/CapturingChannel.h"
#include "TestSupport/TempDir.h"
#include "TwoFactorAuthenticationTask.h"

namespace ConfigTest {

/// Records what the module logger writes while it lives, at every priority;
/// puts the logger's former channel and level back afterwards.
class ModuleLogCapture {
public:
    ModuleLogCapture();
    ~ModuleLogCapture();
    ModuleLogCapture(const ModuleLogCapture&) = delete;
    ModuleLogCapture& operator=(const ModuleLogCapture&) = delete;

    /// Whether a record with exactly `text` at `priority` came from the task's source file.
    bool Has(Poco::Message::Priority priority, const std::string& text) const;
    /// Texts of the records, oldest first.
    std::vector<std::string> Texts() const;
    /// All records as "priority: text" lines, for failure messages.
    std::string Dump() const;
    void Clear();

private:
    Poco::Logger* logger;
    TestSupport::CapturingChannel::Ptr channel;
    Poco::AutoPtr<Poco::Channel> formerChannel;
    int formerLevel;
};

/// An agent installation in a temporary directory, made the agent's
/// configured installation path: a stand-in restart script that only counts
/// its runs, and a stand-in PAM module file.
class StandInInstallation {
public:
    /// `moduleSource`: file to install as module/pam_brackmoor.so; a few bytes of text when empty.
    explicit StandInInstallation(const std::string& moduleSource = "");
    ~StandInInstallation();

    /// The installation path, with its trailing slash.
    std::string Path() const;
    /// How often the restart script ran.
    int RestartCount() const;

private:
    TestSupport::TempDir dir;
};

/// Makes the agent's installation path unknown until destroyed.
class NoInstallationPath {
public:
    NoInstallationPath();
    ~NoInstallationPath();
};

/// Text of `path`; empty when it cannot be read.
std::string ReadText(const std::string& path);
/// Writes `text` to `path`, creating missing parent directories.
void WriteText(const std::string& path, const std::string& text);
bool Exists(const std::string& path);

/// The documented normalisation of a rewritten configuration file: every
/// line trimmed at both ends, blank-only lines emptied, every line ending
/// with "\n" (the last one included).
std::string Normalise(const std::string& text);

/// Lines of `text` (a last line without "\n" counts).
std::vector<std::string> Lines(const std::string& text);

/// A task whose configuration paths all point into `root`:
/// root/etc/ssh/sshd_config, root/etc/pam.d/{sshd,brackmoor-auth}.
std::unique_ptr<Engine::TwoFactorAuthenticationTask> TaskIn(const std::string& root);

/// The system PAM module directories that the task installs into, in its order.
extern const std::vector<std::string> moduleDirs;

/// True only inside tests/sandbox/sandbox-run with /etc a private copy and the
/// module directories on the sandbox's overlays, so that a test may change
/// them; otherwise false with the reason in `why`.
bool InsideSandbox(std::string& why);

/// Makes exactly the module directories in `wanted` exist (sandbox only).
void KeepModuleDirs(const std::vector<std::string>& wanted);

/// Sets the policy values that reach the include file.
void SetPolicy(Engine::TwoFactorAuthenticationTask& task, int refreshTime, int echo, int local,
               const std::vector<std::string>& excludeUsers);

} // namespace ConfigTest
