#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include "LatencyStats.h"

namespace TfaBench {

/// One client sending a request and waiting for its reply, again and again,
/// as one PAM conversation after another would: the latency of each round
/// trip, and the rate one client reaches.
class LoadClient {
public:
    LoadClient();
    ~LoadClient();
    LoadClient(const LoadClient&) = delete;
    LoadClient& operator=(const LoadClient&) = delete;

    /// False when the socket could not be made and bound.
    bool Ok() const { return fd >= 0; }

    /// Sends `request` to `to` for `seconds` (after `warmup` unmeasured round
    /// trips) and checks every reply against `expected`. False, with `error`,
    /// on a failed send, a missing reply (2 s) or a wrong one.
    bool Run(const struct sockaddr_un& to, socklen_t toLength, const std::string& request,
             const std::string& expected, double seconds, int warmup, LatencyStats& stats, std::string& error);

private:
    bool RoundTrip(const struct sockaddr_un& to, socklen_t toLength, const std::string& request,
                   const std::string& expected, std::string& error);

    int fd = -1;
};

} // namespace TfaBench
