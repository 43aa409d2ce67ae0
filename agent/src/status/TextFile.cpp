#include "TextFile.h"

#include <sys/stat.h>

#include "SDK/FileUtils.h"
#include "SDK/StrUtils.h"

namespace Agent {

namespace {

// Configuration files are small; anything larger is not one.
const long kMaxTextBytes = 4 * 1024 * 1024;

} // namespace

bool TextFile::ReadLines(const std::string& path, std::vector<std::string>& lines)
{
    std::string text;
    if (SDK::FileUtils::ReadFile(path, text, kMaxTextBytes) != 0) {
        return false;
    }
    lines.clear();
    std::string::size_type start = 0;
    while (start < text.size()) {
        std::string::size_type end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return true;
}

std::string TextFile::Trimmed(const std::string& line)
{
    std::string copy = line;
    SDK::StrUtils::Trim(copy);
    return copy;
}

std::vector<std::string> TextFile::Fields(const std::string& line)
{
    std::vector<std::string> fields;
    SDK::StrUtils::Split(line, " \t", fields);
    return fields;
}

bool TextFile::Exists(const std::string& path)
{
    struct stat info = {};
    return stat(path.c_str(), &info) == 0;
}

} // namespace Agent
