#pragma once

#include <string>

#include <Poco/AutoPtr.h>
#include <Poco/Formatter.h>
#include <Poco/PatternFormatter.h>

namespace SDK {

/// Formats agent log records as
///   "2024-05-01 12:00:00.123 Error two_factor_authentication_module: Text. (File.cpp:42)"
/// in local time; the "(file:line)" part only when the record names its source.
class LocationFormatter : public Poco::Formatter {
public:
    LocationFormatter();

    void format(const Poco::Message& msg, std::string& text) override;

private:
    Poco::AutoPtr<Poco::PatternFormatter> withLocation;
    Poco::AutoPtr<Poco::PatternFormatter> withoutLocation;
};

} // namespace SDK
