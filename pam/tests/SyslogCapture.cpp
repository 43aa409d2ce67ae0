#include "SyslogCapture.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace brackmoor::pam::test {

SyslogCapture& SyslogCapture::Instance()
{
    static SyslogCapture capture;
    return capture;
}

SyslogCapture::SyslogCapture()
{
    const char* inSandbox = std::getenv("BRACKMOOR_IN_SANDBOX");
    if (inSandbox == nullptr || std::strcmp(inSandbox, "1") != 0) {
        return;
    }
    mkdir("/tmp/brackmoor-dev-upper", 0755);
    mkdir("/tmp/brackmoor-dev-work", 0755);
    if (mount("overlay", "/dev", "overlay", 0,
              "lowerdir=/dev,upperdir=/tmp/brackmoor-dev-upper,workdir=/tmp/brackmoor-dev-work") != 0) {
        return;
    }
    unlink("/dev/log");
    // Per network namespace, and read when the socket is made.
    std::FILE* limit = std::fopen("/proc/sys/net/unix/max_dgram_qlen", "w");
    if (limit == nullptr) {
        return;
    }
    std::fputs("4096", limit);
    std::fclose(limit);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        socket_ = fd;
    } else if (fd >= 0) {
        close(fd);
    }
}

std::vector<std::string> SyslogCapture::Take()
{
    std::vector<std::string> lines;
    char buffer[4096];
    ssize_t got = 0;
    while (socket_ >= 0 && (got = recv(socket_, buffer, sizeof buffer, 0)) > 0) {
        lines.emplace_back(buffer, static_cast<std::size_t>(got));
    }
    return lines;
}

} // namespace brackmoor::pam::test
