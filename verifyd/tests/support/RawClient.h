#pragma once

#include <optional>
#include <string>

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

/// A client context that trusts `caFile`.
inline Poco::Net::Context::Ptr ClientContext(const std::string& caFile)
{
    Poco::Net::Context::Params params;
    params.caLocation = caFile;
    return new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, params);
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
    RawClient(unsigned short port, Poco::Net::Context::Ptr context, const std::string& from = "127.0.0.1")
    {
        try {
            tls = Poco::Net::SecureStreamSocket::attach(ConnectFrom(from, port), "localhost", context);
            tls->setReceiveTimeout(Poco::Timespan(10, 0));
            tls->completeHandshake();
        } catch (const Poco::Exception&) {
            tls.reset(); // Exchange then returns "", which no test takes for an answer
        }
    }

    Poco::Net::StreamSocket& Socket() { return *tls; }

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
};

} // namespace verifyd_test
