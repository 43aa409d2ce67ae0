#pragma once

#include <string>

namespace brackmoor::verifyd {

/// The log line written for every request, for instance
///
///   request agent=web-01 method=POST path=/tfa_code status=200 latency_ms=3.1 peer=127.0.0.1:50412
///
/// Only the path of the target is written: the query and the body are left
/// out, and no header is read, so neither a code nor a token can reach the
/// log. Values the client chose (agent, method, path) are cut to 128
/// characters, and anything but printable ASCII other than blanks becomes
/// "?", so that a request cannot forge or break log lines.
std::string RequestLogLine(const std::string& agent, const std::string& method,
                           const std::string& target, int status, double latencyMs,
                           const std::string& peer);

} // namespace brackmoor::verifyd
