#pragma once

#include <memory>
#include <string>

#include <Poco/Net/HTTPServer.h>
#include <Poco/ThreadPool.h>

#include "ServiceConfig.h"
#include "VerificationApi.h"

namespace brackmoor::verifyd {

/// The TLS listener and its pool of request threads.
///
/// TLS 1.2 or later only, with the certificate chain and key from the
/// configuration; clients are not asked for certificates (agents prove who
/// they are with their tokens). Requests are served by `threads` threads;
/// up to 64 accepted connections wait when all are busy. Idle keep-alive
/// connections are closed after 5 seconds and a stalled client after 10, so
/// slow clients cannot hold the threads for ever.
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

    /// Stops accepting, lets running requests finish, and waits for them.
    void Stop();

    /// The port actually bound (the configured one, or the one picked for 0).
    unsigned short Port() const { return port; }

private:
    HttpsServer(std::unique_ptr<Poco::ThreadPool> threads,
                std::unique_ptr<Poco::Net::HTTPServer> http, unsigned short boundPort);

    std::unique_ptr<Poco::ThreadPool> pool;
    std::unique_ptr<Poco::Net::HTTPServer> server;
    unsigned short port;
    bool running = false;
};

} // namespace brackmoor::verifyd
