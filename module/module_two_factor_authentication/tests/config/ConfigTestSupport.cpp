#include "ConfigTestSupport.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "Framework/ConfigManager.h"
#include "TwoFactorAuthenticationLog.h"

namespace fs = std::filesystem;

namespace ConfigTest {

namespace {

const char* const installation_path_key = "agent.installation_path";

} // namespace

ModuleLogCapture::ModuleLogCapture(std::string hiddenRoot)
    : root(std::move(hiddenRoot)), logger(Engine::TwoFactorAuthentication::GetLoggerPtr()),
      channel(new TestSupport::CapturingChannel), formerChannel(logger->getChannel()), formerLevel(logger->getLevel())
{
    logger->setChannel(channel);
    logger->setLevel(Poco::Message::PRIO_TRACE);
}

ModuleLogCapture::~ModuleLogCapture()
{
    logger->setChannel(formerChannel);
    logger->setLevel(formerLevel);
}

std::vector<std::string> ModuleLogCapture::Records() const
{
    std::vector<std::string> records;
    for (const Poco::Message& message : channel->Messages()) {
        std::string text = message.getText();
        for (size_t at = 0; !root.empty() && (at = text.find(root, at)) != std::string::npos;) {
            text.replace(at, root.size(), "ROOT");
        }
        const char* file = message.getSourceFile();
        const bool fromTask = file != nullptr && std::string(file) == "TwoFactorAuthenticationTask.cpp" &&
                              message.getSourceLine() > 0;
        // Poco's priorities run from 1 (fatal) to 8 (trace).
        records.push_back(std::string(1, "?FCEWNIDT"[message.getPriority()]) + " " + text +
                          (fromTask ? "" : " (not from the task)"));
    }
    return records;
}

StandInInstallation::StandInInstallation(const std::string& moduleSource)
{
    fs::create_directories(dir.File("sudobin"));
    fs::create_directories(dir.File("module"));
    dir.Write("sudobin/sshrestart.sh", "#!/bin/sh\necho restart >> '" + dir.File("restarts") + "'\n", 0755);
    if (moduleSource.empty()) {
        dir.Write("module/pam_brackmoor.so", "stand-in PAM module\n");
    } else {
        fs::copy_file(moduleSource, dir.File("module/pam_brackmoor.so"), fs::copy_options::overwrite_existing);
    }
    Framework::ConfigManager::GetInstance()->Set(installation_path_key, Path());
}

void StandInInstallation::Unset()
{
    Framework::ConfigManager::GetInstance()->Set(installation_path_key, "");
}

int StandInInstallation::RestartCount() const
{
    return static_cast<int>(Lines(ReadText(dir.File("restarts"))).size());
}

void WriteText(const std::string& path, const std::string& text)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::trunc | std::ios::binary) << text;
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string Normalise(const std::string& text)
{
    static const char blanks[] = " \t\r\n\v\f";
    std::string result;
    for (const std::string& line : Lines(text)) {
        const size_t first = line.find_first_not_of(blanks);
        result += (first == std::string::npos ? "" : line.substr(first, line.find_last_not_of(blanks) + 1 - first));
        result += "\n";
    }
    return result;
}

std::unique_ptr<Engine::TwoFactorAuthenticationTask> TaskIn(const std::string& root)
{
    auto task = std::make_unique<Engine::TwoFactorAuthenticationTask>();
    task->pamDir = root + "/pam.d/";
    task->sshdConfigPath = root + "/sshd_config";
    task->pamSshdPath = root + "/pam.d/sshd";
    task->pamIncludePath = root + "/pam.d/brackmoor-auth";
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
    bool bySandbox = false;
    for (std::string line; std::getline(mountInfo, line);) {
        const size_t separator = line.find(" - ");
        std::istringstream head(line.substr(0, separator));
        std::string id, parent, device, root, point;
        if (separator != std::string::npos && head >> id >> parent >> device >> root >> point &&
            point == mountPoint) {
            // Later entries are mounted on top of earlier ones.
            bySandbox = line.find("brackmoor-sandbox", separator) != std::string::npos;
        }
    }
    return bySandbox;
}

bool LinksTo(const std::string& link, const std::string& target)
{
    std::error_code error;
    return fs::canonical(link, error) == fs::path(target) && !error;
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
        if (std::find(wanted.begin(), wanted.end(), dir) != wanted.end()) {
            fs::create_directories(dir);
            fs::remove_all(dir + "pam_brackmoor.so");
        } else {
            fs::remove_all(dir);
        }
    }
}

} // namespace ConfigTest
