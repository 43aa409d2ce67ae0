#include "ConfigTestSupport.h"

#include <sys/stat.h>

#include <cstdlib>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "Framework/ConfigManager.h"
#include "TwoFactorAuthenticationLog.h"

namespace ConfigTest {

namespace {

const char* const task_source_file = "TwoFactorAuthenticationTask.cpp";
const char* const installation_path_key = "agent.installation_path";

} // namespace

ModuleLogCapture::ModuleLogCapture()
    : logger(Engine::TwoFactorAuthentication::GetLoggerPtr()), channel(new TestSupport::CapturingChannel)
{
    formerChannel = logger->getChannel();
    formerLevel = logger->getLevel();
    logger->setChannel(channel);
    logger->setLevel(Poco::Message::PRIO_TRACE);
}

ModuleLogCapture::~ModuleLogCapture()
{
    logger->setChannel(formerChannel);
    logger->setLevel(formerLevel);
}

bool ModuleLogCapture::Has(Poco::Message::Priority priority, const std::string& text) const
{
    for (const Poco::Message& message : channel->Messages()) {
        const char* file = message.getSourceFile();
        if (message.getText() == text && message.getPriority() == priority && file != nullptr &&
            std::string(file) == task_source_file && message.getSourceLine() > 0) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> ModuleLogCapture::Texts() const
{
    std::vector<std::string> texts;
    for (const Poco::Message& message : channel->Messages()) {
        texts.push_back(message.getText());
    }
    return texts;
}

std::string ModuleLogCapture::Dump() const
{
    std::string dump = "records:\n";
    for (const Poco::Message& message : channel->Messages()) {
        dump += "  " + std::to_string(message.getPriority()) + ": " + message.getText() + "\n";
    }
    return dump;
}

void ModuleLogCapture::Clear()
{
    channel->Clear();
}

StandInInstallation::StandInInstallation(const std::string& moduleSource)
{
    std::filesystem::create_directories(dir.Path() + "/sudobin");
    std::filesystem::create_directories(dir.Path() + "/module");
    // The real script restarts sshd; this one only leaves a mark.
    const std::string script = "#!/bin/sh\necho restart >> '" + dir.Path() + "/restarts'\n";
    dir.Write("sudobin/sshrestart.sh", script, 0755);
    if (moduleSource.empty()) {
        dir.Write("module/pam_brackmoor.so", "stand-in PAM module\n");
    } else {
        std::filesystem::copy_file(moduleSource, dir.File("module/pam_brackmoor.so"),
                                   std::filesystem::copy_options::overwrite_existing);
    }
    Framework::ConfigManager::GetInstance()->Set(installation_path_key, Path());
}

StandInInstallation::~StandInInstallation()
{
    // Never fall back to the default installation, whose script would restart
    // this machine's sshd.
    Framework::ConfigManager::GetInstance()->Set(installation_path_key, "");
}

std::string StandInInstallation::Path() const
{
    return dir.Path() + "/";
}

int StandInInstallation::RestartCount() const
{
    return static_cast<int>(Lines(ReadText(dir.File("restarts"))).size());
}

NoInstallationPath::NoInstallationPath()
{
    Framework::ConfigManager::GetInstance()->Set(installation_path_key, "");
}

NoInstallationPath::~NoInstallationPath() = default;

std::string ReadText(const std::string& path)
{
    return TestSupport::ReadWholeFile(path);
}

void WriteText(const std::string& path, const std::string& text)
{
    const std::filesystem::path parent = std::filesystem::path(path).parent_path();
    if (!parent.empty()) {
        std::filesystem::create_directories(parent);
    }
    std::ofstream file(path, std::ios::out | std::ios::trunc | std::ios::binary);
    file << text;
}

bool Exists(const std::string& path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    std::string line;
    while (std::getline(stream, line)) {
        lines.push_back(line);
    }
    return lines;
}

std::string Normalise(const std::string& text)
{
    static const char blanks[] = " \t\r\n\v\f";
    std::string result;
    for (std::string line : Lines(text)) {
        const size_t last = line.find_last_not_of(blanks);
        line = (last == std::string::npos) ? "" : line.substr(0, last + 1);
        line.erase(0, line.find_first_not_of(blanks));
        result += line + "\n";
    }
    return result;
}

std::unique_ptr<Engine::TwoFactorAuthenticationTask> TaskIn(const std::string& root)
{
    auto task = std::make_unique<Engine::TwoFactorAuthenticationTask>();
    task->pamDir = root + "/etc/pam.d/";
    task->sshdConfigPath = root + "/etc/ssh/sshd_config";
    task->pamSshdPath = root + "/etc/pam.d/sshd";
    task->pamIncludePath = root + "/etc/pam.d/brackmoor-auth";
    return task;
}

const std::vector<std::string> moduleDirs = {
    "/lib/x86_64-linux-gnu/security/", "/lib/i386-linux-gnu/security/", "/lib64/security/",
    "/lib/security/", "/lib/aarch64-linux-gnu/security/"};

namespace {

// Whether the topmost mount at `mountPoint` is one that sandbox-run made
// (its tmpfs and overlays name the sandbox's scratch directory).
bool MountedBySandbox(const std::string& mountPoint)
{
    std::ifstream mountInfo("/proc/self/mountinfo");
    std::string line;
    bool bySandbox = false;
    while (std::getline(mountInfo, line)) {
        const size_t separator = line.find(" - ");
        if (separator == std::string::npos) {
            continue;
        }
        std::istringstream head(line.substr(0, separator));
        std::string id, parent, device, root, point;
        head >> id >> parent >> device >> root >> point;
        if (point == mountPoint) {
            // Later entries are mounted on top of earlier ones.
            bySandbox = line.find("brackmoor-sandbox", separator) != std::string::npos;
        }
    }
    return bySandbox;
}

bool LinksTo(const std::string& link, const std::string& target)
{
    std::error_code error;
    return std::filesystem::canonical(link, error) == std::filesystem::path(target) && !error;
}

} // namespace

bool InsideSandbox(std::string& why)
{
    const char* flag = std::getenv("BRACKMOOR_IN_SANDBOX");
    if (flag == nullptr || std::string(flag) != "1") {
        why = "not inside tests/sandbox/sandbox-run; this test changes system paths";
        return false;
    }
    if (!MountedBySandbox("/etc") || !MountedBySandbox("/run")) {
        why = "/etc and /run are not the sandbox's private copies";
        return false;
    }
    // Every module directory must lie on an overlay of the sandbox, so that
    // creating and removing them changes nothing on this machine.
    if (!LinksTo("/lib", "/usr/lib") || !LinksTo("/lib64", "/usr/lib64") || !MountedBySandbox("/usr/lib") ||
        !MountedBySandbox("/usr/lib64")) {
        why = "the PAM module directories are not on the sandbox's overlays (needs /lib -> /usr/lib, "
              "/lib64 -> /usr/lib64)";
        return false;
    }
    return true;
}

void KeepModuleDirs(const std::vector<std::string>& wanted)
{
    for (const std::string& dir : moduleDirs) {
        bool keep = false;
        for (const std::string& w : wanted) {
            keep = keep || w == dir;
        }
        if (keep) {
            std::filesystem::create_directories(dir);
            std::filesystem::remove_all(dir + "pam_brackmoor.so");
        } else {
            std::filesystem::remove_all(dir);
        }
    }
}

void SetPolicy(Engine::TwoFactorAuthenticationTask& task, int refreshTime, int echo, int local,
               const std::vector<std::string>& excludeUsers)
{
    task.refreshTime = refreshTime;
    task.echo = echo;
    task.local = local;
    task.excludeUserList = excludeUsers;
}

} // namespace ConfigTest
