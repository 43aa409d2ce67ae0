#include "AgentConfig.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <filesystem>
#include <system_error>

#include "FileTrust.h"
#include "Framework/ConfigManager.h"
#include "SDK/FileUtils.h"
#include "SDK/StrUtils.h"

namespace Agent {

namespace {

const char* const kPolicySectionPrefix = "policy.";
const long kMaxConfigBytes = 1024 * 1024;

/// A check of one value, with the rule named in the error message.
struct Rule {
    bool (*accepts)(const std::string& value);
    const char* text;
};

bool IsAbsolutePath(const std::string& value)
{
    return !value.empty() && value[0] == '/';
}

bool IsName(const std::string& value)
{
    if (value.empty()) {
        return false;
    }
    for (char c : value) {
        if (std::isspace(static_cast<unsigned char>(c)) != 0) {
            return false;
        }
    }
    return true;
}

const Rule kAbsolutePath = {IsAbsolutePath, "absolute path"};
const Rule kName = {IsName, "a name without blanks"};

/// One key of the host's own: where it lands in the settings and how it is checked.
struct KeyRule {
    const char* key;           ///< key within its section
    bool required;             ///< missing is an error (otherwise the setting keeps its default)
    Rule rule;
    std::string* (*field)(AgentSettings& settings, PolicyFeed& feed);
};

const KeyRule kAgentKeys[] = {
    {"module_dir", false, kAbsolutePath, [](AgentSettings& s, PolicyFeed&) { return &s.moduleDir; }},
    {"pid_file", false, kAbsolutePath, [](AgentSettings& s, PolicyFeed&) { return &s.pidFile; }},
    {"state_dir", false, kAbsolutePath, [](AgentSettings& s, PolicyFeed&) { return &s.stateDir; }},
};

const KeyRule kFeedKeys[] = {
    {"file", true, kAbsolutePath, [](AgentSettings&, PolicyFeed& f) { return &f.file; }},
    {"module", true, kName, [](AgentSettings&, PolicyFeed& f) { return &f.module; }},
    {"callback", true, kName, [](AgentSettings&, PolicyFeed& f) { return &f.callback; }},
    {"feature", true, kName, [](AgentSettings&, PolicyFeed& f) { return &f.feature; }},
};

/// Applies `rules` to the keys of `section`; the first fault ends the check.
template <std::size_t N>
bool ApplyRules(const KeyRule (&rules)[N], const std::string& section, AgentSettings& settings, PolicyFeed& feed,
                std::string& error)
{
    const Framework::ConfigManager* config = Framework::ConfigManager::GetInstance();
    for (const KeyRule& rule : rules) {
        const std::string key = section + "." + rule.key;
        const std::string value = config->GetString(key, "");
        if (value.empty()) {
            if (rule.required) {
                error = "missing key " + key;
                return false;
            }
            continue;
        }
        if (!rule.rule.accepts(value)) {
            error = "bad value for " + key + ": '" + value + "' (" + rule.rule.text + ")";
            return false;
        }
        *rule.field(settings, feed) = value;
    }
    return true;
}

/// The NAMEs of the [policy.NAME] sections of an INI text, in file order.
/// ConfigManager has already accepted the text, so only section lines matter.
std::vector<std::string> PolicySections(const std::string& text)
{
    const std::string prefix = kPolicySectionPrefix;
    std::vector<std::string> names;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        std::string line = text.substr(start, end - start);
        start = end + 1;
        SDK::StrUtils::Trim(line);
        if (line.size() < 2 || line.front() != '[' || line.back() != ']') {
            continue;
        }
        std::string section = line.substr(1, line.size() - 2);
        SDK::StrUtils::Trim(section);
        if (section.size() <= prefix.size() || section.compare(0, prefix.size(), prefix) != 0) {
            continue;
        }
        const std::string name = section.substr(prefix.size());
        // A section given twice is one section to the INI reader as well.
        if (std::find(names.begin(), names.end(), name) == names.end()) {
            names.push_back(name);
        }
    }
    return names;
}

/// The feeds of the [policy.NAME] sections of `text`; false, with `problem`
/// set, when there is none or one is incomplete.
bool ReadFeeds(const std::string& text, AgentSettings& settings, std::string& problem)
{
    const std::vector<std::string> sections = PolicySections(text);
    if (sections.empty()) {
        problem = std::string("missing section [") + kPolicySectionPrefix + "NAME]";
        return false;
    }
    for (const std::string& name : sections) {
        PolicyFeed feed;
        feed.name = name;
        if (!ApplyRules(kFeedKeys, kPolicySectionPrefix + name, settings, feed, problem)) {
            return false;
        }
        settings.feeds.push_back(feed);
    }
    return true;
}

} // namespace

bool AgentConfig::Load(const std::string& path, const std::string& policyOverride, AgentSettings& settings,
                       std::string& error)
{
    const std::string why = FileTrust::WhyUntrusted(path, false);
    if (!why.empty() && access(path.c_str(), F_OK) == 0) {
        error = path + ": " + why;
        return false;
    }
    Framework::ConfigManager* config = Framework::ConfigManager::GetInstance();
    if (config->Load(path, error) != 0) {
        return false;
    }
    std::string text;
    if (SDK::FileUtils::ReadFile(path, text, kMaxConfigBytes) != 0) {
        error = path + ": cannot read";
        return false;
    }

    AgentSettings loaded;
    loaded.configPath = path;
    loaded.installationPath = config->GetInstallationPath();
    loaded.moduleDir = loaded.installationPath + "lib/modules/";
    loaded.pidFile = kDefaultPidFile;
    loaded.stateDir = kDefaultStateDir;
    loaded.logDir = config->GetLogDir();
    loaded.logLevel = config->GetLogLevel();

    std::string problem;
    PolicyFeed unused;
    if (!ApplyRules(kAgentKeys, "agent", loaded, unused, problem) || !ReadFeeds(text, loaded, problem)) {
        error = path + ": " + problem;
        return false;
    }
    if (!policyOverride.empty()) {
        // Relative to the working directory of the command line that gave it.
        std::error_code failed;
        const std::filesystem::path absolute = std::filesystem::absolute(policyOverride, failed);
        loaded.feeds.front().file = failed ? policyOverride : absolute.string();
    }
    settings = loaded;
    return true;
}

} // namespace Agent
