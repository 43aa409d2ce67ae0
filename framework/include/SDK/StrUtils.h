#pragma once

#include <string>
#include <vector>

namespace SDK {

class StrUtils {
public:
    /// Replaces `out` with the fields of `text` cut at any character of
    /// `separators`. Runs of separators, and separators at either end, yield
    /// no empty fields ("  a \t b " -> {"a", "b"}; "" -> {}).
    static void Split(const std::string& text, const std::string& separators,
                      std::vector<std::string>& out);

    /// Removes blanks, tabs, CR, LF, vertical tabs and form feeds at both ends, in place.
    static void Trim(std::string& text);
};

} // namespace SDK
