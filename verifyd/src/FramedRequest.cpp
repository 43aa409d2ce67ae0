#include "FramedRequest.h"

#include <sstream>

#include <Poco/Exception.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/String.h>

namespace brackmoor::verifyd {
namespace {

FramedRequest Refuse(int status, const char* reason)
{
    FramedRequest framed;
    framed.state = FramedRequest::State::Refused;
    framed.refusal = status;
    framed.reason = reason;
    return framed;
}

} // namespace

FramedRequest FramedRequest::From(const std::string& input)
{
    const std::string::size_type blank = input.find("\r\n\r\n");
    if (blank == std::string::npos) {
        return input.size() > kMaxHeadBytes ? Refuse(431, "request head too long")
                                            : FramedRequest();
    }
    const std::size_t headLength = blank + 4;
    if (headLength > kMaxHeadBytes) {
        return Refuse(431, "request head too long");
    }
    Poco::Net::HTTPRequest head;
    try {
        std::istringstream stream(input.substr(0, headLength));
        head.read(stream);
    } catch (const Poco::Exception&) {
        return Refuse(400, "malformed request");
    }
    if (head.getVersion() != Poco::Net::HTTPMessage::HTTP_1_1 &&
        head.getVersion() != Poco::Net::HTTPMessage::HTTP_1_0) {
        return Refuse(400, "malformed request");
    }
    if (head.has("Transfer-Encoding")) {
        return Refuse(411, "a request body needs a Content-Length");
    }
    Poco::Int64 length = 0;
    if (head.has("Content-Length")) {
        try {
            length = head.getContentLength64();
        } catch (const Poco::Exception&) {
            length = -1;
        }
        if (length < 0) {
            return Refuse(400, "malformed Content-Length");
        }
    }

    FramedRequest framed;
    framed.request.method = head.getMethod();
    framed.request.target = head.getURI();
    if (head.has("X-Auth-Token")) {
        framed.request.authToken = head.get("X-Auth-Token");
    }
    framed.forwardedFor = head.get("X-Forwarded-For", "");
    if (length > static_cast<Poco::Int64>(kMaxBodyBytes)) {
        // Answered without reading the body; the connection closes after it.
        framed.state = State::Complete;
        framed.request.bodyTooLarge = true;
        framed.consumed = headLength;
        return framed;
    }
    const auto bodyLength = static_cast<std::size_t>(length);
    if (input.size() - headLength < bodyLength) {
        const bool asks = Poco::icompare(head.get("Expect", ""), "100-continue") == 0;
        framed.state = asks && input.size() == headLength ? State::SendContinue : State::NeedMore;
        return framed;
    }
    framed.state = State::Complete;
    framed.request.body = input.substr(headLength, bodyLength);
    framed.keepAlive = head.getKeepAlive();
    framed.consumed = headLength + bodyLength;
    return framed;
}

} // namespace brackmoor::verifyd
