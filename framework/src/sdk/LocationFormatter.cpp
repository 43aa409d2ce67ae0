#include "LocationFormatter.h"

namespace SDK {

namespace {

const char* const kPattern = "%Y-%m-%d %H:%M:%S.%i %p %s: %t";

Poco::AutoPtr<Poco::PatternFormatter> MakePattern(const std::string& pattern)
{
    Poco::AutoPtr<Poco::PatternFormatter> formatter(new Poco::PatternFormatter(pattern));
    formatter->setProperty(Poco::PatternFormatter::PROP_TIMES, "local");
    return formatter;
}

} // namespace

LocationFormatter::LocationFormatter()
    : withLocation(MakePattern(std::string(kPattern) + " (%U:%u)")), withoutLocation(MakePattern(kPattern))
{
}

void LocationFormatter::format(const Poco::Message& msg, std::string& text)
{
    const bool located = msg.getSourceFile() != nullptr && msg.getSourceFile()[0] != '\0';
    (located ? withLocation : withoutLocation)->format(msg, text);
}

} // namespace SDK
