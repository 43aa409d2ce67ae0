#include "HttpsServer.h"

#include <Poco/Exception.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/SecureServerSocket.h>
#include <Poco/Net/SocketAddress.h>

#include "RequestHandlerFactory.h"

namespace brackmoor::verifyd {
namespace {

using namespace Poco::Net;

Context::Ptr TlsContext(const ServiceConfig& config)
{
    Context::Params params;
    params.certificateFile = config.certificateFile;
    params.privateKeyFile = config.privateKeyFile;
    params.verificationMode = Context::VERIFY_NONE;
    params.loadDefaultCAs = false;
    params.cipherList = "HIGH:!aNULL:!eNULL:!MD5:!RC4:!3DES:!CAMELLIA:!ARIA:@STRENGTH";
    Context::Ptr context = new Context(Context::TLS_SERVER_USE, params);
    context->requireMinimumProtocol(Context::PROTO_TLSV1_2);
    context->preferServerCiphers();
    return context;
}

HTTPServerParams::Ptr ServerParams(int threads)
{
    HTTPServerParams::Ptr params = new HTTPServerParams;
    params->setMaxThreads(threads);
    params->setMaxQueued(64);
    params->setTimeout(Poco::Timespan(10, 0));
    params->setKeepAlive(true);
    params->setKeepAliveTimeout(Poco::Timespan(5, 0));
    params->setMaxKeepAliveRequests(1000);
    return params;
}

} // namespace

std::unique_ptr<HttpsServer> HttpsServer::Create(const ServiceConfig& config, VerificationApi& api,
                                                 std::string& error)
{
    Context::Ptr context;
    try {
        context = TlsContext(config);
    } catch (const Poco::Exception& e) {
        error = "cannot load the TLS certificate " + config.certificateFile + " or key " +
                config.privateKeyFile + ": " + e.displayText();
        return nullptr;
    }
    const std::string where = config.listenAddress + ":" + std::to_string(config.listenPort);
    try {
        SecureServerSocket socket(context);
        // No SO_REUSEPORT: a second server on the same port must fail, not
        // share the port unnoticed.
        socket.bind(SocketAddress(config.listenAddress, config.listenPort), true, false);
        socket.listen(64);
        const unsigned short port = socket.address().port();
        auto pool = std::make_unique<Poco::ThreadPool>(2, config.threads, 60);
        auto server = std::make_unique<HTTPServer>(new RequestHandlerFactory(api), *pool, socket,
                                                   ServerParams(config.threads));
        return std::unique_ptr<HttpsServer>(
            new HttpsServer(std::move(pool), std::move(server), port));
    } catch (const Poco::Exception& e) {
        error = "cannot listen on " + where + ": " + e.displayText();
        return nullptr;
    }
}

HttpsServer::HttpsServer(std::unique_ptr<Poco::ThreadPool> threads,
                         std::unique_ptr<Poco::Net::HTTPServer> http, unsigned short boundPort)
    : pool(std::move(threads)), server(std::move(http)), port(boundPort)
{
}

HttpsServer::~HttpsServer()
{
    Stop();
}

void HttpsServer::Start()
{
    if (!running) {
        server->start();
        running = true;
    }
}

void HttpsServer::Stop()
{
    if (running) {
        server->stopAll(false);
        pool->joinAll();
        running = false;
    }
}

} // namespace brackmoor::verifyd
