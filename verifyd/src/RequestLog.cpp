#include "RequestLog.h"

#include <cstdio>

namespace brackmoor::verifyd {
namespace {

std::string Clean(const std::string& text)
{
    constexpr std::size_t kLimit = 128;
    if (text.empty()) {
        return "-";
    }
    std::string clean;
    for (char c : text) {
        if (clean.size() == kLimit) {
            break;
        }
        clean.push_back(c > ' ' && c <= '~' ? c : '?');
    }
    return clean;
}

} // namespace

std::string RequestLogLine(const std::string& agent, const std::string& method,
                           const std::string& target, int status, double latencyMs,
                           const std::string& peer)
{
    const std::string path = target.substr(0, target.find('?'));
    char latency[32];
    std::snprintf(latency, sizeof latency, "%.1f", latencyMs);
    return "request agent=" + Clean(agent) + " method=" + Clean(method) + " path=" + Clean(path) +
           " status=" + std::to_string(status) + " latency_ms=" + latency + " peer=" + peer;
}

} // namespace brackmoor::verifyd
