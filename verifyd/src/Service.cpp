#include "Service.h"

#include <Poco/Net/NetSSL.h>

#include "OutboxChannel.h"
#include "SmsHookChannel.h"
#include "SmtpChannel.h"

namespace brackmoor::verifyd {
namespace {

/// The courier the configuration asks for; nullptr and `error` set when the
/// outbox cannot be used.
std::unique_ptr<Courier> MakeCourier(const ServiceConfig& config, std::string& error)
{
    std::unique_ptr<DeliveryChannel> outbox = OutboxChannel::Create(config.outboxDir, error);
    if (!outbox) {
        return nullptr;
    }
    std::unique_ptr<DeliveryChannel> mail;
    if (!config.smtpHost.empty()) {
        mail = std::make_unique<SmtpChannel>(config.smtpHost, config.smtpPort, config.smtpFrom,
                                             std::chrono::seconds(config.smtpTimeoutSeconds));
    }
    std::unique_ptr<DeliveryChannel> sms;
    if (!config.smsCommand.empty()) {
        sms = std::make_unique<SmsHookChannel>(config.smsCommand,
                                               std::chrono::seconds(config.smsTimeoutSeconds));
    }
    return std::make_unique<Courier>(std::move(outbox), std::move(mail), std::move(sms));
}

} // namespace

std::unique_ptr<Service> Service::Create(const ServiceConfig& config, std::string& error)
{
    std::unique_ptr<Service> service(new Service);
    // Every request thread may hold one connection; two more for the rest.
    service->database = Database::Open(config.DatabaseLocation(), config.threads + 2, error);
    if (!service->database) {
        return nullptr;
    }
    service->throttle = std::make_unique<AuthThrottle>(config.authFailuresPerMinute);
    service->courier = MakeCourier(config, error);
    if (!service->courier) {
        return nullptr;
    }
    const CodeLimits limits{config.codesPerMinute, config.codesPerHour};
    service->api = std::make_unique<VerificationApi>(*service->database, limits,
                                                     *service->throttle, *service->courier);
    Poco::Net::initializeSSL();
    service->sslInitialized = true;
    service->server = HttpsServer::Create(config, *service->api, error);
    if (!service->server) {
        return nullptr;
    }
    return service;
}

Service::~Service()
{
    if (server) {
        server->Stop();
        server.reset();
    }
    if (sslInitialized) {
        Poco::Net::uninitializeSSL();
    }
}

void Service::Start()
{
    server->Start();
}

void Service::Stop()
{
    server->Stop();
}

} // namespace brackmoor::verifyd
