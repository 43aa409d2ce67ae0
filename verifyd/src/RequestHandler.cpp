#include "RequestHandler.h"

#include <chrono>
#include <sstream>

#include <Poco/Logger.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/String.h>

#include "RequestLog.h"

namespace brackmoor::verifyd {
namespace {

std::string Render(const ApiResponse& out, bool keepAlive)
{
    Poco::Net::HTTPResponse response(Poco::Net::HTTPResponse::HTTP_1_1,
                                     static_cast<Poco::Net::HTTPResponse::HTTPStatus>(out.status));
    response.setContentType("application/json; charset=utf-8");
    response.set("Cache-Control", "no-store");
    for (const auto& [name, value] : out.headers) {
        response.set(name, value);
    }
    response.setContentLength(static_cast<std::streamsize>(out.body.size()));
    response.setKeepAlive(keepAlive);
    std::ostringstream text;
    response.write(text);
    return text.str() + out.body;
}

void Log(const std::string& line)
{
    Poco::Logger::get("verifyd.request").information(line);
}

} // namespace

RequestHandler::RequestHandler(VerificationApi& service, std::set<std::string> trustedProxies)
    : api(service), proxies(std::move(trustedProxies))
{
}

std::string RequestHandler::Answer(FramedRequest framed, const std::string& peer,
                                   const std::string& address, bool keepAlive) const
{
    const auto start = std::chrono::steady_clock::now();
    framed.request.client = ClientOf(address, framed.forwardedFor);
    const ApiResponse out = api.Handle(framed.request);
    const std::string bytes = Render(out, keepAlive);
    const std::chrono::duration<double, std::milli> latency =
        std::chrono::steady_clock::now() - start;
    const std::string client =
        framed.request.client == address ? "" : " client=" + framed.request.client;
    Log(RequestLogLine(out.agent, framed.request.method, framed.request.target, out.status,
                       latency.count(), peer) +
        client);
    return bytes;
}

std::string RequestHandler::Refusal(int status, const std::string& reason, const std::string& peer)
{
    const ApiResponse out = VerificationApi::Refusal(status, reason);
    Log(RequestLogLine("-", "-", "-", status, 0, peer));
    return Render(out, false);
}

std::string RequestHandler::ClientOf(const std::string& address,
                                     const std::string& forwardedFor) const
{
    if (forwardedFor.empty() || proxies.count(address) == 0) {
        return address;
    }
    // The last entry is the one the proxy added itself: the address its
    // client connected from. Entries before it are the client's own claims.
    const std::string last = Poco::trim(forwardedFor.substr(forwardedFor.rfind(',') + 1));
    Poco::Net::IPAddress parsed;
    return Poco::Net::IPAddress::tryParse(last, parsed) ? parsed.toString() : address;
}

} // namespace brackmoor::verifyd
