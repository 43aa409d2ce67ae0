#include "HttpsServer.h"

#include <sys/resource.h>

#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/Net/SocketAddress.h>
#include <openssl/ssl.h>

namespace brackmoor::verifyd {
namespace {

using namespace Poco::Net;

/// TLS 1.2 suites: forward secrecy (ECDHE) and authenticated encryption only.
/// TLS 1.3 has no others.
constexpr const char* kCiphers = "ECDHE+AESGCM:ECDHE+CHACHA20";
constexpr long kSessionLifetimeSeconds = 3600;

Context::Ptr TlsContext(const ServiceConfig& config, std::string& error)
{
    Context::Params params;
    params.certificateFile = config.certificateFile;
    params.privateKeyFile = config.privateKeyFile;
    params.verificationMode = Context::VERIFY_NONE;
    params.loadDefaultCAs = false;
    params.cipherList = kCiphers;
    Context::Ptr context;
    try {
        context = new Context(Context::TLS_SERVER_USE, params);
        context->requireMinimumProtocol(Context::PROTO_TLSV1_2);
        context->preferServerCiphers();
        context->enableSessionCache(true, "brackmoor-verifyd");
        context->setSessionTimeout(kSessionLifetimeSeconds);
    } catch (const Poco::Exception& e) {
        error = "cannot load the TLS certificate " + config.certificateFile + " or key " +
                config.privateKeyFile + ": " + e.displayText();
        return nullptr;
    }
    SSL_CTX* ssl = context->sslContext();
    if (SSL_CTX_check_private_key(ssl) != 1) {
        error = "the TLS key " + config.privateKeyFile + " does not belong to the certificate " +
                config.certificateFile;
        return nullptr;
    }
    // Answers are written again from where they stopped, from a buffer that
    // may have moved; idle connections give their buffers back.
    SSL_CTX_set_mode(ssl, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_ENABLE_PARTIAL_WRITE |
                              SSL_MODE_RELEASE_BUFFERS);
    return context;
}

/// Raises the soft limit of open descriptors so that the configured number of
/// connections fits, as far as the hard limit allows.
void AllowDescriptors(int connections)
{
    rlimit limit{};
    const rlim_t wanted = static_cast<rlim_t>(connections) + 256;
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < wanted) {
        limit.rlim_cur = std::min(wanted, limit.rlim_max);
        ::setrlimit(RLIMIT_NOFILE, &limit);
        if (limit.rlim_cur < wanted) {
            Poco::Logger::get("verifyd.server")
                .warning("only %lu descriptors may be open; server.max_connections is %d",
                         static_cast<unsigned long>(limit.rlim_cur), connections);
        }
    }
}

ConnectionLimits LimitsOf(const ServiceConfig& config)
{
    ConnectionLimits limits;
    limits.requestTimeout = std::chrono::seconds(config.requestTimeoutSeconds);
    limits.perAddress = config.connectionsPerClient;
    limits.total = config.maxConnections;
    limits.exemptAddresses = config.trustedProxies;
    return limits;
}

} // namespace

std::unique_ptr<HttpsServer> HttpsServer::Create(const ServiceConfig& config, VerificationApi& api,
                                                 std::string& error)
{
    Context::Ptr context = TlsContext(config, error);
    if (!context) {
        return nullptr;
    }
    AllowDescriptors(config.maxConnections);
    const std::string where = config.listenAddress + ":" + std::to_string(config.listenPort);
    ServerSocket socket;
    try {
        // No SO_REUSEPORT: a second server on the same port must fail, not
        // share the port unnoticed.
        socket.bind(SocketAddress(config.listenAddress, config.listenPort), true, false);
        socket.listen(1024);
        socket.setBlocking(false);
    } catch (const Poco::Exception& e) {
        error = "cannot listen on " + where + ": " + e.displayText();
        return nullptr;
    }
    std::unique_ptr<HttpsServer> server(new HttpsServer(config, api, context, socket));
    if (!server->loop.Open(error)) {
        return nullptr;
    }
    return server;
}

HttpsServer::HttpsServer(const ServiceConfig& config, VerificationApi& api,
                         Poco::Net::Context::Ptr tls, Poco::Net::ServerSocket listener)
    : context(std::move(tls)), socket(std::move(listener)), port(socket.address().port()),
      handler(api, config.trustedProxies), workers(config.threads),
      loop(socket.impl()->sockfd(), context->sslContext(), LimitsOf(config), handler, workers)
{
}

HttpsServer::~HttpsServer()
{
    Stop();
}

void HttpsServer::Start()
{
    if (!thread.joinable()) {
        thread = std::thread([this] { loop.Run(); });
    }
}

void HttpsServer::Stop()
{
    if (thread.joinable()) {
        loop.Stop();
        thread.join();
    }
    workers.Stop();
}

} // namespace brackmoor::verifyd
