#include "ClientConnection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include <openssl/err.h>

namespace brackmoor::verifyd {
namespace {

/// Input beyond a complete head and the largest body is never needed: a
/// request that long is refused once the head is there.
constexpr std::size_t kInputLimit = kMaxHeadBytes + kMaxBodyBytes + 1024;

} // namespace

ClientConnection::ClientConnection(int socket, SSL_CTX* tls, std::string peer,
                                   std::string address)
    : fd(socket), peerText(std::move(peer)), peerAddress(std::move(address))
{
    ssl = SSL_new(tls);
    if (ssl != nullptr && SSL_set_fd(ssl, fd.Get()) != 1) {
        SSL_free(ssl);
        ssl = nullptr;
    }
    if (ssl != nullptr) {
        SSL_set_accept_state(ssl);
    }
}

ClientConnection::~ClientConnection()
{
    if (ssl != nullptr) {
        SSL_free(ssl);
    }
}

ClientConnection::Io ClientConnection::Result(int returned)
{
    switch (SSL_get_error(ssl, returned)) {
    case SSL_ERROR_WANT_READ:
        return Io::WantRead;
    case SSL_ERROR_WANT_WRITE:
        return Io::WantWrite;
    default:
        // A failed handshake or a reset leaves its reasons in this thread's
        // error queue, where they would be taken for the next connection's.
        ERR_clear_error();
        return Io::Closed;
    }
}

ClientConnection::Io ClientConnection::Handshake()
{
    const int returned = SSL_do_handshake(ssl);
    return returned == 1 ? Io::Done : Result(returned);
}

ClientConnection::Io ClientConnection::Fill()
{
    char buffer[16384];
    while (input.size() < kInputLimit) {
        const int got = SSL_read(ssl, buffer, sizeof buffer);
        if (got <= 0) {
            return Result(got);
        }
        input.append(buffer, static_cast<std::size_t>(got));
    }
    return Io::Done;
}

ClientConnection::Io ClientConnection::Flush()
{
    while (HasOutput()) {
        const int put = SSL_write(ssl, output.data() + sent, static_cast<int>(output.size() - sent));
        if (put <= 0) {
            return Result(put);
        }
        sent += static_cast<std::size_t>(put);
    }
    output.clear();
    sent = 0;
    return Io::Done;
}

void ClientConnection::FinishSending()
{
    // Unanswered: the peer need not confirm; what counts is that the close
    // notification follows the answer.
    if (SSL_shutdown(ssl) < 0) {
        ERR_clear_error();
    }
    ::shutdown(fd.Get(), SHUT_WR);
}

ClientConnection::Io ClientConnection::Drain()
{
    char buffer[4096];
    for (;;) {
        const ssize_t got = ::recv(fd.Get(), buffer, sizeof buffer, 0);
        if (got > 0) {
            continue;
        }
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return Io::WantRead;
        }
        return Io::Closed;
    }
}

} // namespace brackmoor::verifyd
