#include "SshdConfigCheck.h"

#include <cctype>
#include <string>
#include <vector>

#include "SshdSettingsReader.h"
#include "TextFile.h"

namespace Agent {

namespace {

const char* const kSubject = "sshd_config";
const char* const kEffective = "sshd_config (effective)";
// The keywords the agent switches, in the order it chooses them: the first
// that has a yes or no line anywhere (commented or not) is the one edited.
const char* const kKeywords[] = {"ChallengeResponseAuthentication", "KbdInteractiveAuthentication"};

/// The agent's view of a line: exactly "KEY yes" or "KEY no", case as written.
bool IsKeyLine(const std::string& body, const std::string& key, std::string& value)
{
    const std::vector<std::string> fields = TextFile::Fields(body);
    if (fields.size() != 2 || fields[0] != key || (fields[1] != "yes" && fields[1] != "no")) {
        return false;
    }
    value = fields[1];
    return true;
}

/// The state of the agent's switch in the main file; `switchLine` is the
/// number of the active line of the switched keyword, 0 when none.
CheckResult SwitchState(const std::vector<std::string>& lines, const std::string& path, int& switchLine)
{
    switchLine = 0;
    for (const char* key : kKeywords) {
        bool present = false;
        int activeLine = 0;
        std::string activeValue;
        for (std::size_t i = 0; i < lines.size(); ++i) {
            const std::string line = TextFile::Trimmed(lines[i]);
            const bool commented = !line.empty() && line[0] == '#';
            std::string value;
            if (!IsKeyLine(commented ? line.substr(1) : line, key, value)) {
                continue;
            }
            present = true;
            if (!commented && activeLine == 0) {
                activeLine = static_cast<int>(i) + 1;
                activeValue = value;
            }
        }
        if (!present) {
            continue;
        }
        switchLine = activeLine;
        const std::string where = " (" + path + ":" + std::to_string(activeLine) + ")";
        if (activeValue == "yes") {
            return {CheckLevel::Ok, kSubject, std::string(key) + " yes is active" + where + ": switched on"};
        }
        if (activeValue == "no") {
            return {CheckLevel::Fail, kSubject, std::string(key) + " no is active" + where + ": switched off"};
        }
        return {CheckLevel::Fail, kSubject, std::string(key) + " has only commented lines: switched off"};
    }
    return {CheckLevel::Fail, kSubject,
            "neither ChallengeResponseAuthentication nor KbdInteractiveAuthentication has a yes or no line: "
            "the agent cannot switch keyboard-interactive authentication on"};
}

std::string Lower(std::string text)
{
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

std::string Where(const SshdSetting& setting)
{
    return setting.file + ":" + std::to_string(setting.line);
}

CheckResult KeyboardInteractive(const SshdSetting& setting, const std::string& mainFile)
{
    if (!setting.found) {
        return {CheckLevel::Ok, kEffective, "keyboard-interactive authentication is not set anywhere; sshd's default is yes"};
    }
    if (Lower(setting.value) == "yes") {
        return {CheckLevel::Ok, kEffective, "keyboard-interactive authentication yes, from " + Where(setting)};
    }
    if (setting.file != mainFile) {
        return {CheckLevel::Fail, kEffective,
                "a drop-in turns keyboard-interactive authentication off: " + Where(setting) + " sets " +
                    setting.value + ", and sshd reads it before the main file's line"};
    }
    return {CheckLevel::Fail, kEffective,
            "keyboard-interactive authentication " + setting.value + ", from " + Where(setting) +
                " (sshd takes the first value it reads)"};
}

CheckResult UsePam(const SshdSetting& setting)
{
    if (!setting.found) {
        return {CheckLevel::Fail, kEffective, "UsePAM is not set anywhere; sshd's default is no, so PAM is not used"};
    }
    if (Lower(setting.value) == "yes") {
        return {CheckLevel::Ok, kEffective, "UsePAM yes, from " + Where(setting)};
    }
    return {CheckLevel::Fail, kEffective,
            "UsePAM " + setting.value + ", from " + Where(setting) + ": sshd does not use PAM"};
}

} // namespace

CheckResults SshdConfigCheck::Inspect(const StatusPaths& paths)
{
    std::vector<std::string> lines;
    if (!TextFile::ReadLines(paths.sshdConfig, lines)) {
        return {{CheckLevel::Fail, kSubject, paths.sshdConfig + " cannot be read"}};
    }
    CheckResults results;
    int switchLine = 0;
    results.push_back(SwitchState(lines, paths.sshdConfig, switchLine));

    SshdSettingsReader reader(paths.root);
    reader.Read(paths.sshdConfig);
    const SshdSetting keyboard = reader.Get("kbdinteractiveauthentication");
    const CheckResult effective = KeyboardInteractive(keyboard, paths.sshdConfig);
    // A "no" decided by the very line the switch reported is said once.
    const bool sameLine = keyboard.found && keyboard.file == paths.sshdConfig && keyboard.line == switchLine;
    if (!(effective.level == CheckLevel::Fail && sameLine)) {
        results.push_back(effective);
    }
    results.push_back(UsePam(reader.Get("usepam")));
    return results;
}

} // namespace Agent
