#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <openssl/ssl.h>

#include "FramedRequest.h"
#include "brackmoor/UniqueFd.h"

namespace brackmoor::verifyd {

/// One accepted TLS connection, driven without blocking by the server's event
/// loop: the handshake, reading a request, writing the answer, and closing.
///
/// It owns the socket and the TLS state. Only the event loop's thread touches
/// it; request threads get a copy of the framed request and hand back the
/// answer's bytes.
class ClientConnection {
public:
    using Clock = std::chrono::steady_clock;

    enum class Phase {
        Handshake, ///< TLS handshake under way
        Reading,   ///< a request has begun (or the connection is new) and must complete
        Idle,      ///< between requests of a kept-alive connection
        Working,   ///< a request thread has the request
        Writing,   ///< the answer is being sent
        Draining,  ///< closing: the answer is out, what the client still sends is discarded
    };

    /// Outcome of one non-blocking step.
    enum class Io {
        Done,      ///< the step finished
        WantRead,  ///< it waits for the socket to become readable
        WantWrite, ///< it waits for the socket to become writable
        Closed,    ///< the client closed the connection, or it failed
    };

    /// Takes over `socket` (non-blocking) with a new TLS session of `tls`.
    /// `peer` is "address:port", `address` the address alone.
    ClientConnection(int socket, SSL_CTX* tls, std::string peer, std::string address);
    ~ClientConnection();

    ClientConnection(const ClientConnection&) = delete;
    ClientConnection& operator=(const ClientConnection&) = delete;

    /// False when no TLS session could be made for the socket.
    bool Usable() const { return ssl != nullptr; }

    int Socket() const { return fd.Get(); }
    const std::string& Peer() const { return peerText; }
    const std::string& Address() const { return peerAddress; }

    /// Continues the TLS handshake.
    Io Handshake();

    /// Reads what has arrived into the input, up to a bound that no usable
    /// request reaches.
    Io Fill();

    /// Frames the request at the start of the input.
    FramedRequest Frame() const { return FramedRequest::From(input); }

    /// Drops the first `bytes` of the input (a request that has been taken).
    void Consume(std::size_t bytes) { input.erase(0, bytes); }
    bool HasInput() const { return !input.empty(); }

    /// Queues bytes to send; Flush() sends them.
    void Queue(const std::string& bytes) { output += bytes; }
    bool HasOutput() const { return sent < output.size(); }
    Io Flush();

    /// Sends the TLS close notification and half-closes the socket, so the
    /// client reads the answer to its end; the socket stays open for Drain().
    void FinishSending();

    /// Reads and discards what the client still sends; Closed at its end.
    Io Drain();

    /// A request thread has the request, or its answer is going out.
    bool AnswerUnderWay() const { return phase == Phase::Working || phase == Phase::Writing; }

    Phase phase = Phase::Handshake;
    Clock::time_point deadline; ///< when the current phase must be over
    bool continueSent = false;  ///< "100 Continue" went out for the request being read
    bool closeAfterAnswer = false;
    int requestsServed = 0;
    std::uint32_t watched = 0; ///< the epoll events the loop waits for on it

private:
    Io Result(int returned);

    UniqueFd fd;
    SSL* ssl = nullptr;
    std::string peerText;
    std::string peerAddress;
    std::string input;
    std::string output;
    std::size_t sent = 0;
};

} // namespace brackmoor::verifyd
