#include "BoundedClientSession.h"

#include <algorithm>

#include <Poco/Net/NetException.h>

namespace SDK {

namespace {

// A proxy's answer to CONNECT is a status line and a few headers.
const std::size_t kMaxTunnelReplyBytes = 8192;

bool ProxyConfigured(const Poco::Net::HTTPClientSession& session)
{
    return !session.getProxyHost().empty();
}

} // namespace

Poco::Net::StreamSocket BoundedConnector::Connect(const Poco::Net::SocketAddress& address, bool tunnel,
                                                  const std::string& host, Poco::UInt16 port)
{
    Poco::Net::StreamSocket socket;
    socket.connect(address, std::min(connectTimeout, watchdog.Remaining()));
    watchdog.Arm(socket.impl()->sockfd());
    // Per-operation time-outs only bound single calls; the watchdog bounds
    // their sum. They are set to what is left, so neither waits longer.
    socket.setReceiveTimeout(watchdog.Remaining());
    socket.setSendTimeout(watchdog.Remaining());
    socket.setNoDelay(true);
    if (tunnel) {
        OpenTunnel(socket, host, port);
    }
    return socket;
}

void BoundedConnector::OpenTunnel(Poco::Net::StreamSocket& socket, const std::string& host, Poco::UInt16 port)
{
    const std::string target = host + ":" + std::to_string(port);
    const std::string request = "CONNECT " + target + " HTTP/1.1\r\nHost: " + target + "\r\n\r\n";
    if (socket.sendBytes(request.data(), static_cast<int>(request.size())) != static_cast<int>(request.size())) {
        throw Poco::Net::NetException("proxy did not take the CONNECT request");
    }
    // Byte by byte: nothing of the tunnelled stream may be read past the
    // header's end.
    std::string reply;
    char c = 0;
    while (reply.size() < kMaxTunnelReplyBytes && reply.find("\r\n\r\n") == std::string::npos) {
        if (socket.receiveBytes(&c, 1) != 1) {
            throw Poco::Net::NetException("proxy closed the connection during CONNECT");
        }
        reply += c;
    }
    const std::string::size_type space = reply.find(' ');
    if (reply.compare(0, 5, "HTTP/") != 0 || space == std::string::npos || reply.compare(space + 1, 3, "200") != 0) {
        throw Poco::Net::NetException("proxy refused the tunnel: " + reply.substr(0, reply.find('\r')));
    }
}

BoundedHttpSession::BoundedHttpSession(const std::string& host, Poco::UInt16 port, Poco::Timespan connectLimit,
                       CallWatchdog& callWatchdog)
    : Poco::Net::HTTPClientSession(host, port), connectTimeout(connectLimit), watchdog(callWatchdog)
{
}

BoundedHttpSession::~BoundedHttpSession()
{
    watchdog.Disarm();
}

void BoundedHttpSession::connect(const Poco::Net::SocketAddress& address)
{
    // Plain HTTP through a proxy sends absolute URIs to the proxy itself.
    BoundedConnector connector(watchdog, connectTimeout);
    attachSocket(connector.Connect(address, false, getHost(), getPort()));
}

BoundedHttpsSession::BoundedHttpsSession(const std::string& host, Poco::UInt16 port,
                                         Poco::Net::Context::Ptr context, Poco::Net::Session::Ptr resumeSession,
                                         Poco::Timespan connectLimit, CallWatchdog& callWatchdog)
    : Poco::Net::HTTPSClientSession(host, port, context),
      tlsContext(context),
      resume(resumeSession),
      connectTimeout(connectLimit),
      watchdog(callWatchdog)
{
}

BoundedHttpsSession::~BoundedHttpsSession()
{
    watchdog.Disarm();
}

void BoundedHttpsSession::connect(const Poco::Net::SocketAddress& address)
{
    BoundedConnector connector(watchdog, connectTimeout);
    Poco::Net::StreamSocket tcp = connector.Connect(address, ProxyConfigured(*this), getHost(), getPort());
    // The handshake verifies the chain against the context's CA and the
    // certificate against the host name (or resumes a session that did).
    tls = Poco::Net::SecureStreamSocket::attach(tcp, getHost(), tlsContext, resume);
    connected = true;
    attachSocket(tls);
}

Poco::Net::Session::Ptr BoundedHttpsSession::SessionForReuse()
{
    return connected ? tls.currentSession() : Poco::Net::Session::Ptr();
}

bool BoundedHttpsSession::Resumed()
{
    return connected && tls.sessionWasReused();
}

} // namespace SDK
