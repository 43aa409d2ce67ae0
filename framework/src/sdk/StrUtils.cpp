#include "SDK/StrUtils.h"

namespace SDK {

void StrUtils::Split(const std::string& text, const std::string& separators,
                     std::vector<std::string>& out)
{
    out.clear();
    std::string::size_type start = text.find_first_not_of(separators);
    while (start != std::string::npos) {
        const std::string::size_type end = text.find_first_of(separators, start);
        out.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
        start = text.find_first_not_of(separators, end);
    }
}

void StrUtils::Trim(std::string& text)
{
    static const char kBlanks[] = " \t\r\n\v\f";
    const std::string::size_type last = text.find_last_not_of(kBlanks);
    if (last == std::string::npos) {
        text.clear();
        return;
    }
    text.erase(last + 1);
    text.erase(0, text.find_first_not_of(kBlanks));
}

} // namespace SDK
