#include "SshdEffectiveCheck.h"

#include <unistd.h>

#include <map>
#include <vector>

#include "SDK/ExecuteCmdUtils.h"
#include "TextFile.h"

namespace Agent {

namespace {

const char* const kSubject = "sshd -T";
const unsigned long kMaxOutput = 256 * 1024;
const int kTimeoutSeconds = 30;

/// `text` as one word for /bin/sh.
std::string Quoted(const std::string& text)
{
    std::string quoted = "'";
    for (char c : text) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

/// The "keyword value" lines of sshd -T, keyword in lower case as sshd prints it.
std::map<std::string, std::string> Settings(const std::string& output)
{
    std::map<std::string, std::string> settings;
    std::string::size_type start = 0;
    while (start < output.size()) {
        std::string::size_type end = output.find('\n', start);
        if (end == std::string::npos) {
            end = output.size();
        }
        const std::vector<std::string> fields = TextFile::Fields(output.substr(start, end - start));
        if (fields.size() >= 2) {
            settings.emplace(fields[0], fields[1]);
        }
        start = end + 1;
    }
    return settings;
}

std::string FirstLine(const std::string& text)
{
    const std::string line = TextFile::Trimmed(text.substr(0, text.find('\n')));
    return line.empty() ? "no output" : line;
}

CheckResult Expect(const std::map<std::string, std::string>& settings, const std::vector<std::string>& names,
                   const std::string& meaning)
{
    for (const std::string& name : names) {
        auto found = settings.find(name);
        if (found == settings.end()) {
            continue;
        }
        if (found->second == "yes") {
            return {CheckLevel::Ok, kSubject, name + " yes"};
        }
        return {CheckLevel::Fail, kSubject, name + " " + found->second + ": " + meaning};
    }
    return {CheckLevel::Fail, kSubject, "does not report " + names.front()};
}

} // namespace

CheckResults SshdEffectiveCheck::Inspect(const StatusPaths& paths, const std::string& sshdBinary,
                                         const std::string& user, std::map<std::string, std::string>& settings)
{
    settings.clear();
    if (access(sshdBinary.c_str(), X_OK) != 0) {
        return {{CheckLevel::Info, kSubject, sshdBinary + " is not installed; effective settings not checked"}};
    }
    if (geteuid() != 0) {
        return {{CheckLevel::Info, kSubject, "not asked: sshd -T needs root to read the host keys"}};
    }
    // A connection of `user` from and to the loopback address: Match blocks
    // for the user apply; those for other hosts or addresses do not.
    const std::string connection =
        user.empty() ? "" : " -C " + Quoted("user=" + user + ",host=localhost,addr=127.0.0.1,laddr=127.0.0.1,lport=22");
    std::string output;
    const int status = SDK::ExecuteCmdUtils::ExecuteCmd(
        Quoted(sshdBinary) + " -T -f " + Quoted(paths.sshdConfig) + connection, output, kMaxOutput, kTimeoutSeconds);
    if (status != 0) {
        return {{CheckLevel::Fail, kSubject,
                 "failed (" + FirstLine(output) + "): sshd would not start with this configuration"}};
    }
    settings = Settings(output);
    // Older sshd prints challengeresponseauthentication for the same setting.
    return {Expect(settings, {"kbdinteractiveauthentication", "challengeresponseauthentication"},
                   "sshd will not ask for the second factor"),
            Expect(settings, {"usepam"}, "sshd does not use PAM")};
}

} // namespace Agent
