#pragma once

#include <chrono>
#include <optional>
#include <string>

#include <Poco/Exception.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/SecureStreamSocket.h>

namespace verifyd_test {

/// A TCP connection to 127.0.0.1:`port` from the loopback address `from`
/// (127.0.0.0/8 is all loopback, so a test can play several clients).
inline Poco::Net::StreamSocket ConnectFrom(const std::string& from, unsigned short port)
{
    Poco::Net::StreamSocket socket;
    socket.impl()->bind(Poco::Net::SocketAddress(from, 0), false);
    socket.connect(Poco::Net::SocketAddress("127.0.0.1", port), Poco::Timespan(5, 0));
    return socket;
}

/// Whether the peer closes `socket` within `wait`; what it sends is dropped.
inline bool ClosedWithin(Poco::Net::StreamSocket& socket, std::chrono::milliseconds wait)
{
    char buffer[1024];
    try {
        while (socket.poll(Poco::Timespan(wait.count() * 1000), Poco::Net::Socket::SELECT_READ)) {
            if (socket.receiveBytes(buffer, sizeof buffer) <= 0) {
                return true;
            }
        }
        return false;
    } catch (const Poco::Exception&) {
        return true; // a reset: closed all the same
    }
}

/// A client context that trusts `caFile`; `ciphers` and `disabled`
/// (Context::PROTO_* left out) narrow what it offers.
inline Poco::Net::Context::Ptr ClientContext(const std::string& caFile,
                                             const std::string& ciphers = "DEFAULT",
                                             int disabled = 0)
{
    Poco::Net::Context::Params params;
    params.caLocation = caFile;
    params.cipherList = ciphers;
    Poco::Net::Context::Ptr context = new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, params);
    context->disableProtocols(disabled);
    context->enableSessionCache(true);
    return context;
}

/// A list request of `agent` as raw HTTP/1.1 that asks to close afterwards.
inline std::string RawList(const std::string& token, const std::string& agent = "web-01")
{
    return "GET /tfa_phone_num?agent_id=" + agent + " HTTP/1.1\r\nHost: localhost\r\n"
           "Connection: close\r\nX-Auth-Token: " + token + "\r\n\r\n";
}

/// The status of a raw answer, 0 for none.
inline int StatusOf(const std::string& answer)
{
    return answer.size() > 12 ? std::atoi(answer.c_str() + 9) : 0;
}

/// A TLS client of the service that sends exactly the bytes a test gives, as
/// a misbehaving or hostile client would, and reads what comes back.
class RawClient {
public:
    RawClient(unsigned short port, Poco::Net::Context::Ptr context,
              Poco::Net::Session::Ptr session = nullptr, const std::string& from = "127.0.0.1")
    {
        try {
            tls = Poco::Net::SecureStreamSocket::attach(ConnectFrom(from, port), "localhost",
                                                        context, session);
            tls->setReceiveTimeout(Poco::Timespan(10, 0));
            tls->completeHandshake();
        } catch (const Poco::Exception& e) {
            error = e.displayText();
            tls.reset();
        }
    }

    /// "" when the handshake succeeded, else why it did not.
    const std::string& Error() const { return error; }
    bool Resumed() { return tls && tls->sessionWasReused(); }
    Poco::Net::Session::Ptr Session() { return tls->currentSession(); }
    Poco::Net::StreamSocket& Socket() { return *tls; }
    /// Sends `bytes` without waiting for an answer.
    void Send(const std::string& bytes) { Exchange(bytes, false); }

    /// Sends `bytes`, then returns all that comes back until the server closes
    /// the connection (or 10 s pass without a byte) unless `read` is false.
    std::string Exchange(const std::string& bytes, bool read = true)
    {
        std::string answer;
        char buffer[4096];
        try {
            if (tls) {
                tls->sendBytes(bytes.data(), static_cast<int>(bytes.size()));
            }
            for (int got; read && tls && (got = tls->receiveBytes(buffer, sizeof buffer)) > 0;) {
                answer.append(buffer, static_cast<std::size_t>(got));
            }
        } catch (const Poco::Exception&) {
            // closed by the server, or no connection at all: the caller sees what came
        }
        return answer;
    }

private:
    std::optional<Poco::Net::SecureStreamSocket> tls;
    std::string error;
};

} // namespace verifyd_test
