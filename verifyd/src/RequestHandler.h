#pragma once

#include <Poco/Net/HTTPRequestHandler.h>

#include "VerificationApi.h"

namespace brackmoor::verifyd {

/// Adapts one HTTP exchange to VerificationApi: reads the target, the token
/// header and a body of at most kMaxBodyBytes, writes the JSON answer with
/// "Cache-Control: no-store" (a code must not be cached anywhere), and logs
/// the request line (RequestLogLine) at information priority to the logger
/// "verifyd.request".
class RequestHandler : public Poco::Net::HTTPRequestHandler {
public:
    explicit RequestHandler(VerificationApi& service) : api(service) {}

    void handleRequest(Poco::Net::HTTPServerRequest& request,
                       Poco::Net::HTTPServerResponse& response) override;

private:
    VerificationApi& api;
};

} // namespace brackmoor::verifyd
