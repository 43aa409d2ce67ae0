#pragma once

#include <Poco/Net/HTTPRequestHandlerFactory.h>

#include "VerificationApi.h"

namespace brackmoor::verifyd {

/// Gives the HTTP server a RequestHandler for every request; all of them share
/// one VerificationApi.
class RequestHandlerFactory : public Poco::Net::HTTPRequestHandlerFactory {
public:
    explicit RequestHandlerFactory(VerificationApi& service) : api(service) {}

    Poco::Net::HTTPRequestHandler* createRequestHandler(
        const Poco::Net::HTTPServerRequest& request) override;

private:
    VerificationApi& api;
};

} // namespace brackmoor::verifyd
