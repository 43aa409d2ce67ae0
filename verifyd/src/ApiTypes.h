#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace brackmoor::verifyd {

/// One HTTP request as the API sees it, independent of the server library.
struct ApiRequest {
    std::string method;                   ///< "GET", "POST", ...
    std::string target;                   ///< request target as received: path and query
    std::optional<std::string> authToken; ///< the X-Auth-Token header, if sent
    std::string body;
    bool bodyTooLarge = false; ///< the body exceeded kMaxBodyBytes and was not read
};

/// The API's answer: status, JSON body and what the request log needs.
struct ApiResponse {
    int status = 500;
    std::string body; ///< always a JSON object
    std::vector<std::pair<std::string, std::string>> headers; ///< Allow, Retry-After
    std::string agent = "-"; ///< the agent_id the request named, for the log
};

/// Request bodies longer than this are refused with 413 without being read.
constexpr std::size_t kMaxBodyBytes = 4096;

} // namespace brackmoor::verifyd
