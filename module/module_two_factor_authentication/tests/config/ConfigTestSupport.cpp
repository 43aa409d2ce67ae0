#include "ConfigTestSupport.h"

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

Records ModuleLogCapture::Records() const
{
    ConfigTest::Records records;
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
    // Exits with a failure: the task ignores the script's result.
    dir.Write("sudobin/sshrestart.sh", "#!/bin/sh\necho restart >> '" + dir.File("restarts") + "'\nexit 3\n", 0755);
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

} // namespace ConfigTest
