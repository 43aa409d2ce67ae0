#pragma once

#include <memory>
#include <string>
#include <thread>

#include <Poco/Net/Context.h>
#include <Poco/Net/ServerSocket.h>

#include "ConnectionLoop.h"
#include "RequestHandler.h"
#include "ServiceConfig.h"
#include "VerificationApi.h"
#include "WorkerPool.h"

namespace brackmoor::verifyd {

/// The TLS listener: one thread that holds every connection (ConnectionLoop)
/// and `threads` request threads that only ever see complete requests.
///
/// TLS 1.2 or later, and in TLS 1.2 only ECDHE key exchange with AEAD
/// ciphers; the certificate chain and key come from the configuration and
/// must belong together. Clients are not asked for certificates (agents prove
/// who they are with their tokens). Sessions can be resumed, with TLS 1.3
/// tickets or TLS 1.2 tickets and session ids, for an hour: an agent that
/// refreshes its list every few minutes then skips the full handshake.
class HttpsServer {
public:
    /// Loads the certificate and key and binds the listening socket; nullptr
    /// and `error` set (one line) when either fails.
    static std::unique_ptr<HttpsServer> Create(const ServiceConfig& config, VerificationApi& api,
                                               std::string& error);
    ~HttpsServer();

    HttpsServer(const HttpsServer&) = delete;
    HttpsServer& operator=(const HttpsServer&) = delete;

    /// Starts accepting connections.
    void Start();

    /// Stops accepting, lets the requests under way finish and be answered,
    /// and waits for them.
    void Stop();

    /// The port actually bound (the configured one, or the one picked for 0).
    unsigned short Port() const { return port; }

private:
    HttpsServer(const ServiceConfig& config, VerificationApi& api, Poco::Net::Context::Ptr tls,
                Poco::Net::ServerSocket listener);

    Poco::Net::Context::Ptr context;
    Poco::Net::ServerSocket socket;
    unsigned short port;
    RequestHandler handler;
    WorkerPool workers;
    ConnectionLoop loop;
    std::thread thread;
};

} // namespace brackmoor::verifyd
