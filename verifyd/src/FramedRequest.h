#pragma once

#include <cstddef>
#include <string>

#include "ApiTypes.h"

namespace brackmoor::verifyd {

/// How far the bytes received on a connection make up one HTTP/1.1 request.
///
/// The connection keeps reading until From() says Complete (or Refused), so a
/// request reaches a request thread only when it is whole: a client that
/// sends slowly, or not at all, holds a connection but never a thread. A body
/// is only as long as Content-Length says (a request without one has none);
/// one longer than kMaxBodyBytes is not waited for, and a client that asked
/// to be told to go on ("Expect: 100-continue") is told so only for a body
/// the service will read.
struct FramedRequest {
    enum class State {
        NeedMore,     ///< the head or the body is not all there yet
        SendContinue, ///< the head asked for "100 Continue" before the body
        Complete,     ///< `request` holds the request; `consumed` bytes were its own
        Refused,      ///< unusable; answer `refusal` with `reason` and close
    };

    State state = State::NeedMore;
    ApiRequest request;          ///< method, target, token, body or bodyTooLarge
    bool keepAlive = false;      ///< the client wants the connection for another request
    std::string forwardedFor;    ///< the X-Forwarded-For header as received
    std::size_t consumed = 0;    ///< bytes of the input that this request took
    int refusal = 0;             ///< 400 malformed, 411 no usable length, 431 head too long
    std::string reason;          ///< for the error body

    /// Frames the request at the start of `input`.
    static FramedRequest From(const std::string& input);
};

} // namespace brackmoor::verifyd
