#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <optional>
#include <string>

namespace TfaTest {

/// The server's address exactly as the PAM module writes it: a NUL, the 24
/// characters of the name and a trailing NUL, 28 bytes with the family.
/// Built here independently of the server so that tests catch a server bound
/// to any other spelling.
struct sockaddr_un ServerAddress();
constexpr socklen_t kServerAddressLength = 28;

/// A reply as it travels: the decimal text and its NUL.
inline std::string Reply(const std::string& digits)
{
    return digits + std::string(1, '\0');
}

/// A client of the task's datagram server, as the PAM module is one: a socket
/// bound to an abstract address of its own, so that the server has somewhere
/// to send the reply.
class IpcClient {
public:
    IpcClient();
    ~IpcClient();
    IpcClient(const IpcClient&) = delete;
    IpcClient& operator=(const IpcClient&) = delete;

    /// False when the socket could not be made or bound; Error() says why.
    bool Ok() const { return fd >= 0; }
    const std::string& Error() const { return error; }

    /// Sends `datagram` byte for byte (NULs included) to the server; 0 or
    /// errno. A shorter `addressLength` names another server, for tests of the name.
    int Send(const std::string& datagram, socklen_t addressLength = kServerAddressLength);
    /// The next reply, all its bytes; nothing when none came within `timeoutMs`.
    std::optional<std::string> Receive(int timeoutMs);
    /// One request and its reply.
    std::optional<std::string> Ask(const std::string& datagram, int timeoutMs = 5000)
    {
        return Send(datagram) == 0 ? Receive(timeoutMs) : std::nullopt;
    }

private:
    int fd = -1;
    std::string error;
};

} // namespace TfaTest
