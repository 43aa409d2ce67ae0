#pragma once

#include <string>

#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/Session.h>
#include <Poco/Net/StreamSocket.h>

#include "CallWatchdog.h"

namespace SDK {

/// Connects the session's socket itself, so that the watchdog covers the
/// whole exchange from the first byte on: TCP connect (within the connect
/// time-out and the deadline), the proxy tunnel, the TLS handshake, the
/// request and the response. A proxy, when configured, is only reached
/// through an HTTP CONNECT tunnel.
class BoundedConnector {
public:
    BoundedConnector(CallWatchdog& callWatchdog, Poco::Timespan connectLimit)
        : watchdog(callWatchdog), connectTimeout(connectLimit)
    {
    }

    /// A TCP connection to `address`, armed; through a CONNECT tunnel to
    /// `host`:`port` when `tunnel` is set (then `address` is the proxy's).
    Poco::Net::StreamSocket Connect(const Poco::Net::SocketAddress& address, bool tunnel, const std::string& host,
                                    Poco::UInt16 port);

private:
    void OpenTunnel(Poco::Net::StreamSocket& socket, const std::string& host, Poco::UInt16 port);

    CallWatchdog& watchdog;
    Poco::Timespan connectTimeout;
};

/// A plain HTTP session bounded by a watchdog.
class BoundedHttpSession : public Poco::Net::HTTPClientSession {
public:
    BoundedHttpSession(const std::string& host, Poco::UInt16 port, Poco::Timespan connectLimit,
                       CallWatchdog& callWatchdog);
    /// Disarms before the base class closes the socket.
    ~BoundedHttpSession() override;

protected:
    void connect(const Poco::Net::SocketAddress& address) override;

private:
    Poco::Timespan connectTimeout;
    CallWatchdog& watchdog;
};

/// An HTTPS session bounded by a watchdog that resumes `resume` (a TLS
/// session of an earlier connection to the same service) when the server
/// agrees; the server's certificate was verified against the context's CA
/// when that session was made, and a server that does not resume must
/// present one that verifies again.
class BoundedHttpsSession : public Poco::Net::HTTPSClientSession {
public:
    BoundedHttpsSession(const std::string& host, Poco::UInt16 port, Poco::Net::Context::Ptr context,
                        Poco::Net::Session::Ptr resumeSession, Poco::Timespan connectLimit,
                        CallWatchdog& callWatchdog);
    /// Disarms before the base class closes the socket.
    ~BoundedHttpsSession() override;

    /// The TLS session to resume next time; null before a connection.
    Poco::Net::Session::Ptr SessionForReuse();
    /// Whether the handshake resumed the given session.
    bool Resumed();

protected:
    void connect(const Poco::Net::SocketAddress& address) override;

private:
    Poco::Net::Context::Ptr tlsContext;
    Poco::Net::Session::Ptr resume;
    Poco::Timespan connectTimeout;
    CallWatchdog& watchdog;
    Poco::Net::SecureStreamSocket tls;
    bool connected = false;
};

} // namespace SDK
