#include "IpcClient.h"

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace TfaTest {

namespace {

std::atomic<unsigned> clientCounter{0};

} // namespace

struct sockaddr_un ServerAddress()
{
    struct sockaddr_un address;
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    static const char name[] = "\0PAM_BRACKMOOR_IPC_SERVER";  // and the literal's NUL
    static_assert(sizeof(name) == 26, "leading NUL, 24 characters, trailing NUL");
    std::memcpy(address.sun_path, name, sizeof(name));
    return address;
}

IpcClient::IpcClient()
{
    const int socketFd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socketFd < 0) {
        error = std::string("socket: ") + std::strerror(errno);
        return;
    }
    name = "brackmoor-test-client-" + std::to_string(getpid()) + "-" + std::to_string(clientCounter++);
    struct sockaddr_un address;
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    const socklen_t length = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + 1 + name.size());
    if (bind(socketFd, reinterpret_cast<const struct sockaddr*>(&address), length) != 0) {
        error = std::string("bind: ") + std::strerror(errno);
        close(socketFd);
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

int IpcClient::Send(const std::string& datagram)
{
    const struct sockaddr_un server = ServerAddress();
    return SendTo(datagram, server, kServerAddressLength);
}

int IpcClient::SendTo(const std::string& datagram, const struct sockaddr_un& to, socklen_t toLength)
{
    const ssize_t sent = sendto(fd, datagram.data(), datagram.size(), 0,
                                reinterpret_cast<const struct sockaddr*>(&to), toLength);
    if (sent < 0) {
        return errno;
    }
    return static_cast<size_t>(sent) == datagram.size() ? 0 : EMSGSIZE;
}

std::optional<std::string> IpcClient::Receive(int timeoutMs)
{
    struct pollfd ready = {fd, POLLIN, 0};
    if (poll(&ready, 1, timeoutMs) != 1) {
        return std::nullopt;
    }
    char buffer[512];
    const ssize_t received = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
    if (received < 0) {
        return std::nullopt;
    }
    return std::string(buffer, static_cast<size_t>(received));
}

std::optional<std::string> IpcClient::Ask(const std::string& datagram, int timeoutMs)
{
    if (Send(datagram) != 0) {
        return std::nullopt;
    }
    return Receive(timeoutMs);
}

} // namespace TfaTest
