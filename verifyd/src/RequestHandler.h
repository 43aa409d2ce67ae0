#pragma once

#include <set>
#include <string>

#include "FramedRequest.h"
#include "VerificationApi.h"

namespace brackmoor::verifyd {

/// Answers complete requests on the request threads: works out the client's
/// address (the peer's, or behind a trusted reverse proxy the one it
/// forwarded), asks the VerificationApi, and renders the HTTP answer with
/// "Cache-Control: no-store" (a code must not be cached anywhere). Logs the
/// request line (RequestLogLine) at information priority to the logger
/// "verifyd.request".
class RequestHandler {
public:
    /// `trustedProxies`: addresses whose X-Forwarded-For is believed.
    RequestHandler(VerificationApi& service, std::set<std::string> trustedProxies);

    /// The bytes of the answer to `framed`, which came from `peer`
    /// ("address:port") at `address`. `keepAlive`: the connection stays open
    /// afterwards, which the answer's Connection header says.
    std::string Answer(FramedRequest framed, const std::string& peer, const std::string& address,
                       bool keepAlive) const;

    /// The bytes of a refusal of bytes that make no usable request (framing
    /// errors), logged like an answer; the connection closes after it.
    static std::string Refusal(int status, const std::string& reason, const std::string& peer);

private:
    /// The address failed authentications of this request count against.
    std::string ClientOf(const std::string& address, const std::string& forwardedFor) const;

    VerificationApi& api;
    const std::set<std::string> proxies;
};

} // namespace brackmoor::verifyd
