#include "SshdSettingsReader.h"

#include <glob.h>

#include <cctype>
#include <utility>
#include <vector>

#include "TextFile.h"

namespace Agent {

namespace {

// sshd refuses deeper nesting too; it also ends include loops.
const int kMaxIncludeDepth = 16;

std::string Lower(std::string text)
{
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

/// Splits a configuration line into its keyword and the rest, as sshd does:
/// the keyword ends at white space or "=", and one "=" may stand between.
void SplitKeyword(const std::string& line, std::string& keyword, std::string& rest)
{
    const std::string::size_type end = line.find_first_of(" \t=");
    keyword = Lower(line.substr(0, end));
    if (end == std::string::npos) {
        rest.clear();
        return;
    }
    std::string::size_type start = line.find_first_not_of(" \t", end);
    if (start != std::string::npos && line[start] == '=') {
        start = line.find_first_not_of(" \t", start + 1);
    }
    rest = start == std::string::npos ? std::string() : line.substr(start);
}

} // namespace

SshdSettingsReader::SshdSettingsReader(std::string rootDir) : root(std::move(rootDir)) {}

bool SshdSettingsReader::Read(const std::string& mainFile)
{
    return ReadFile(mainFile, 0);
}

SshdSetting SshdSettingsReader::Get(const std::string& keyword) const
{
    auto found = settings.find(keyword);
    return found == settings.end() ? SshdSetting() : found->second;
}

bool SshdSettingsReader::ReadFile(const std::string& path, int depth)
{
    std::vector<std::string> lines;
    if (depth > kMaxIncludeDepth || !TextFile::ReadLines(path, lines)) {
        return false;
    }
    for (std::size_t i = 0; i < lines.size() && !stopped; ++i) {
        const std::string line = TextFile::Trimmed(lines[i]);
        if (line.empty() || line[0] == '#') {
            continue;
        }
        std::string keyword;
        std::string rest;
        SplitKeyword(line, keyword, rest);
        if (keyword == "match") {
            stopped = true;
            break;
        }
        if (keyword == "include") {
            Include(rest, depth + 1);
            continue;
        }
        if (keyword == "challengeresponseauthentication") {
            keyword = "kbdinteractiveauthentication";
        }
        if (settings.count(keyword) != 0) {
            continue;
        }
        const std::vector<std::string> words = TextFile::Fields(rest);
        SshdSetting setting;
        setting.found = true;
        setting.value = words.empty() ? std::string() : words[0];
        setting.file = path;
        setting.line = static_cast<int>(i) + 1;
        settings.emplace(keyword, setting);
    }
    return true;
}

void SshdSettingsReader::Include(const std::string& patterns, int depth)
{
    for (const std::string& pattern : TextFile::Fields(patterns)) {
        const std::string full = pattern[0] == '/' ? root + pattern : root + "/etc/ssh/" + pattern;
        glob_t matches = {};
        if (glob(full.c_str(), 0, nullptr, &matches) == 0) {
            for (std::size_t i = 0; i < matches.gl_pathc && !stopped; ++i) {
                ReadFile(matches.gl_pathv[i], depth);
            }
        }
        globfree(&matches);
    }
}

} // namespace Agent
