#pragma once

#include <chrono>
#include <optional>
#include <string>

#include <Poco/Exception.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/StreamSocket.h>

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

/// A client context that trusts `caFile`; `cipherList` and `protocols`
/// (Context::PROTO_* to leave out) narrow what it offers.
inline Poco::Net::Context::Ptr ClientContext(const std::string& caFile,
                                             const std::string& cipherList = "DEFAULT",
                                             int disabledProtocols = 0)
{
    Poco::Net::Context::Params params;
    params.caLocation = caFile;
    params.verificationMode = Poco::Net::Context::VERIFY_STRICT;
    params.cipherList = cipherList;
    Poco::Net::Context::Ptr context =
        new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, params);
    context->disableProtocols(disabledProtocols);
    context->enableSessionCache(true);
    return context;
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
        }
    }

    /// "" when the handshake succeeded, else why it did not.
    const std::string& Error() const { return error; }
    bool Resumed() { return error.empty() && tls->sessionWasReused(); }
    Poco::Net::Session::Ptr Session() { return tls->currentSession(); }

    /// Sends `bytes`; false when the connection is gone.
    bool Send(const std::string& bytes)
    {
        try {
            return tls && tls->sendBytes(bytes.data(), static_cast<int>(bytes.size())) > 0;
        } catch (const Poco::Exception&) {
            return false;
        }
    }

    /// Sends `bytes` and returns the first answer: its head and the body its
    /// Content-Length announces (empty when nothing came within 10 s).
    std::string Exchange(const std::string& bytes)
    {
        Send(bytes);
        std::string answer;
        std::string::size_type head = std::string::npos;
        std::size_t length = 0;
        while (head == std::string::npos || answer.size() < head + 4 + length) {
            if (!Read(answer)) {
                break;
            }
            head = answer.find("\r\n\r\n");
            const std::string::size_type field = answer.find("Content-Length: ");
            length = field < head ? std::stoul(answer.substr(field + 16)) : 0;
        }
        return answer;
    }

    /// Whether the server closes the connection within `wait`, reading and
    /// dropping whatever it sends until then.
    bool ClosedWithin(std::chrono::milliseconds wait)
    {
        const auto deadline = std::chrono::steady_clock::now() + wait;
        while (tls && std::chrono::steady_clock::now() < deadline) {
            tls->setReceiveTimeout(Poco::Timespan(0, 50000));
            try {
                if (tls->receiveBytes(buffer, sizeof buffer) <= 0) {
                    return true;
                }
            } catch (const Poco::TimeoutException&) {
            } catch (const Poco::Exception&) {
                return true; // reset or unclean end: closed all the same
            }
        }
        return false;
    }

private:
    bool Read(std::string& into)
    {
        try {
            const int got = tls ? tls->receiveBytes(buffer, sizeof buffer) : 0;
            into.append(buffer, got > 0 ? static_cast<std::size_t>(got) : 0);
            return got > 0;
        } catch (const Poco::Exception&) {
            return false;
        }
    }

    std::optional<Poco::Net::SecureStreamSocket> tls;
    std::string error;
    char buffer[4096];
};

} // namespace verifyd_test
