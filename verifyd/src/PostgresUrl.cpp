#include "PostgresUrl.h"

#include <algorithm>
#include <cctype>
#include <utility>
#include <vector>

#include <Poco/Exception.h>
#include <Poco/URI.h>

namespace brackmoor::verifyd {
namespace {

bool HasBlank(const std::string& text)
{
    return std::any_of(text.begin(), text.end(),
                       [](unsigned char c) { return std::isspace(c) != 0; });
}

} // namespace

bool IsPostgresUrl(const std::string& location)
{
    return location.rfind("postgresql://", 0) == 0 || location.rfind("postgres://", 0) == 0;
}

bool PostgresConnectionString(const std::string& url, std::string& keywords, std::string& error)
{
    std::vector<std::pair<std::string, std::string>> pairs;
    try {
        const Poco::URI uri(url);
        std::string info;
        Poco::URI::decode(uri.getUserInfo(), info);
        const std::string::size_type colon = info.find(':');
        pairs.emplace_back("user", info.substr(0, colon));
        if (colon != std::string::npos) {
            pairs.emplace_back("password", info.substr(colon + 1));
        }
        pairs.emplace_back("host", uri.getHost());
        if (uri.getPort() != 0) {
            pairs.emplace_back("port", std::to_string(uri.getPort()));
        }
        pairs.emplace_back("dbname", uri.getPath().empty() ? "" : uri.getPath().substr(1));
        for (const auto& parameter : uri.getQueryParameters()) {
            pairs.push_back(parameter);
        }
    } catch (const Poco::Exception&) {
        // Not the exception's text: it may quote the URL, password and all.
        error = "not a usable postgresql:// URL";
        return false;
    }
    if (!IsPostgresUrl(url)) {
        error = "not a postgresql:// URL";
        return false;
    }
    keywords.clear();
    for (const auto& [key, value] : pairs) {
        if (key == "dbname" && (value.empty() || value.find('/') != std::string::npos)) {
            error = "the URL must name one database, as in postgresql://host/verifyd";
            return false;
        }
        if (HasBlank(key) || HasBlank(value) || key.empty()) {
            error = "the URL's " + (key == "password" ? std::string("password") : "\"" + key + "\"") +
                    " must not contain blanks";
            return false;
        }
        if (!value.empty()) {
            keywords += (keywords.empty() ? "" : " ") + key + "=" + value;
        }
    }
    return true;
}

} // namespace brackmoor::verifyd
