#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace brackmoor::verifyd {

/// One HTTP request as the API sees it, independent of the transport.
struct ApiRequest {
    std::string method;                   ///< "GET", "POST", ...
    std::string target;                   ///< request target as received: path and query
    std::optional<std::string> authToken; ///< the X-Auth-Token header, if sent
    std::string body;
    bool bodyTooLarge = false; ///< the body exceeded kMaxBodyBytes and was not read
    std::string client;        ///< the client's address, which failed authentications count against
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

/// A request line and header fields longer than this together are refused
/// with 431; the agent's requests need a few hundred bytes.
constexpr std::size_t kMaxHeadBytes = 8192;

} // namespace brackmoor::verifyd
