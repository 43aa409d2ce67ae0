#include "RequestHandler.h"

#include <chrono>

#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>

#include "RequestLog.h"

namespace brackmoor::verifyd {
namespace {

/// Reads the body unless it is longer than kMaxBodyBytes. A body left unread
/// makes the connection unusable for a next request, so the caller closes it.
void ReadBody(Poco::Net::HTTPServerRequest& request, ApiRequest& into)
{
    if (request.hasContentLength() &&
        request.getContentLength64() > static_cast<Poco::Int64>(kMaxBodyBytes)) {
        into.bodyTooLarge = true;
        return;
    }
    std::istream& stream = request.stream();
    char buffer[1024];
    while (stream && into.body.size() <= kMaxBodyBytes) {
        stream.read(buffer, sizeof buffer);
        into.body.append(buffer, static_cast<std::size_t>(stream.gcount()));
    }
    if (into.body.size() > kMaxBodyBytes) {
        into.bodyTooLarge = true;
        into.body.clear();
    }
}

} // namespace

void RequestHandler::handleRequest(Poco::Net::HTTPServerRequest& request,
                                   Poco::Net::HTTPServerResponse& response)
{
    const auto start = std::chrono::steady_clock::now();
    ApiRequest in;
    in.method = request.getMethod();
    in.target = request.getURI();
    if (request.has("X-Auth-Token")) {
        in.authToken = request.get("X-Auth-Token");
    }
    ApiResponse out;
    try {
        ReadBody(request, in);
        out = api.Handle(in);
        response.setStatusAndReason(
            static_cast<Poco::Net::HTTPResponse::HTTPStatus>(out.status));
        response.setContentType("application/json; charset=utf-8");
        response.set("Cache-Control", "no-store");
        for (const auto& [name, value] : out.headers) {
            response.set(name, value);
        }
        if (in.bodyTooLarge) {
            response.setKeepAlive(false);
        }
        response.sendBuffer(out.body.data(), out.body.size());
    } catch (const Poco::Exception& e) {
        // The client went away or sent a broken body; there is nobody to answer.
        Poco::Logger::get("verifyd.request").debug("exchange aborted: %s", e.displayText());
    }
    const std::chrono::duration<double, std::milli> latency =
        std::chrono::steady_clock::now() - start;
    Poco::Logger::get("verifyd.request")
        .information(RequestLogLine(out.agent, in.method, in.target, out.status,
                                    latency.count(), request.clientAddress().toString()));
}

} // namespace brackmoor::verifyd
