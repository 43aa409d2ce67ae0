#include "LoadClient.h"

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>

namespace TfaBench {

namespace {

uint64_t NowNanos()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

} // namespace

LoadClient::LoadClient()
{
    const int socketFd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socketFd < 0) {
        return;
    }
    struct sockaddr_un self;
    std::memset(&self, 0, sizeof(self));
    self.sun_family = AF_UNIX;
    const char name[] = "\0brackmoor-bench-client";
    std::memcpy(self.sun_path, name, sizeof(name) - 1);
    const struct timeval patience = {2, 0};
    if (bind(socketFd, reinterpret_cast<const struct sockaddr*>(&self),
             static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + sizeof(name) - 1)) != 0 ||
        setsockopt(socketFd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience)) != 0) {
        close(socketFd);
        return;
    }
    fd = socketFd;
}

LoadClient::~LoadClient()
{
    if (fd >= 0) {
        close(fd);
    }
}

bool LoadClient::RoundTrip(const struct sockaddr_un& to, socklen_t toLength, const std::string& request,
                           const std::string& expected, std::string& error)
{
    if (sendto(fd, request.data(), request.size(), 0, reinterpret_cast<const struct sockaddr*>(&to), toLength) !=
        static_cast<ssize_t>(request.size())) {
        error = std::string("send: ") + std::strerror(errno);
        return false;
    }
    char reply[256];
    const ssize_t received = recv(fd, reply, sizeof(reply), 0);
    if (received < 0) {
        error = std::string("no reply: ") + std::strerror(errno);
        return false;
    }
    if (static_cast<size_t>(received) != expected.size() || std::memcmp(reply, expected.data(), expected.size()) != 0) {
        error = "unexpected reply";
        return false;
    }
    return true;
}

bool LoadClient::Run(const struct sockaddr_un& to, socklen_t toLength, const std::string& request,
                     const std::string& expected, double seconds, int warmup, LatencyStats& stats,
                     std::string& error)
{
    for (int i = 0; i < warmup; ++i) {
        if (!RoundTrip(to, toLength, request, expected, error)) {
            return false;
        }
    }
    const uint64_t start = NowNanos();
    const uint64_t end = start + static_cast<uint64_t>(seconds * 1e9);
    uint64_t now = start;
    while (now < end) {
        if (!RoundTrip(to, toLength, request, expected, error)) {
            return false;
        }
        const uint64_t after = NowNanos();
        stats.Add(after - now);
        now = after;
    }
    stats.AddElapsed(static_cast<double>(now - start) / 1e9);
    return true;
}

} // namespace TfaBench
