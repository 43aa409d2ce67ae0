#include "IpcClient.h"

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace TfaTest {

struct sockaddr_un ServerAddress()
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    static const char name[] = "\0PAM_BRACKMOOR_IPC_SERVER";  // and the literal's NUL
    static_assert(sizeof(name) == 26, "leading NUL, 24 characters, trailing NUL");
    std::memcpy(address.sun_path, name, sizeof(name));
    return address;
}

IpcClient::IpcClient()
{
    static std::atomic<unsigned> counter{0};
    const std::string name = "brackmoor-test-client-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    const auto length = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + 1 + name.size());
    const int socketFd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socketFd < 0 || bind(socketFd, reinterpret_cast<const struct sockaddr*>(&address), length) != 0) {
        error = std::string("socket/bind: ") + std::strerror(errno);
        if (socketFd >= 0) {
            close(socketFd);
        }
        return;
    }
    fd = socketFd;
}

IpcClient::~IpcClient()
{
    if (fd >= 0) {
        close(fd);
    }
}

int IpcClient::Send(const std::string& datagram, socklen_t addressLength)
{
    const struct sockaddr_un to = ServerAddress();
    const ssize_t sent =
        sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<const struct sockaddr*>(&to), addressLength);
    if (sent < 0) {
        return errno;
    }
    return static_cast<size_t>(sent) == datagram.size() ? 0 : EMSGSIZE;
}

std::optional<std::string> IpcClient::Receive(int timeoutMs)
{
    struct pollfd ready = {fd, POLLIN, 0};
    char buffer[512];
    const ssize_t received = poll(&ready, 1, timeoutMs) == 1 ? recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT) : -1;
    if (received < 0) {
        return std::nullopt;
    }
    return std::string(buffer, static_cast<size_t>(received));
}

} // namespace TfaTest
