#pragma once

#include <memory>
#include <string>

#include "Courier.h"
#include "Database.h"
#include "HttpsServer.h"
#include "AuthThrottle.h"
#include "ServiceConfig.h"
#include "VerificationApi.h"

namespace brackmoor::verifyd {

/// The running service: database, throttle, delivery channels, API and HTTPS
/// server, built from one configuration. "serve" runs one of these;
/// the tests and the load test run one in their own process.
class Service {
public:
    /// Opens the database, prepares the outbox and the channels and binds the
    /// listener; nullptr and `error` set (one line) when any of that fails.
    static std::unique_ptr<Service> Create(const ServiceConfig& config, std::string& error);
    ~Service();

    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    /// Starts serving requests.
    void Start();

    /// Stops accepting and waits for running requests to finish.
    void Stop();

    /// The bound port (useful when the configuration asked for port 0).
    unsigned short Port() const { return server->Port(); }

    /// The service's database, shared with whoever runs the service in-process.
    Database& Store() { return *database; }

    /// The requests' handling without the transport, for whoever runs the
    /// service in-process.
    VerificationApi& Api() { return *api; }

private:
    Service() = default;

    std::unique_ptr<Database> database;
    std::unique_ptr<AuthThrottle> throttle;
    std::unique_ptr<Courier> courier;
    std::unique_ptr<VerificationApi> api;
    std::unique_ptr<HttpsServer> server;
    bool sslInitialized = false;
};

} // namespace brackmoor::verifyd
