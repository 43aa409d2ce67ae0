#include "SDK/HttpUtils.h"

#include <exception>
#include <istream>
#include <memory>
#include <ostream>

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/URI.h>

#include "BoundedClientSession.h"
#include "CallWatchdog.h"
#include "Framework/ConfigManager.h"
#include "SdkLog.h"
#include "TlsContextFactory.h"

namespace SDK {

namespace {

const char* const kAddressToken = "SERVICE_ADDRESS";
// The service's answers hold at most 32 contact hashes and a code: a few
// kilobytes. A larger body is refused instead of growing the agent.
const std::streamsize kMaxResponseBytes = 64 * 1024;

/// A request that failed before or without a response: the reason is logged
/// once, by the caller, with the target.
struct TransportError {
    std::string reason;
};

/// `url` with the service address in place of its placeholder and the
/// URL-encoded query parameters appended.
Poco::URI BuildUri(const std::string& url, const std::map<std::string, std::string>& params)
{
    std::string target = url;
    const std::string::size_type token = target.find(kAddressToken);
    if (token != std::string::npos) {
        const std::string address = Framework::ConfigManager::GetInstance()->GetServiceAddress();
        if (address.empty()) {
            throw TransportError{"no service address configured"};
        }
        target.replace(token, std::char_traits<char>::length(kAddressToken), address);
    }
    Poco::URI uri(target);
    if (uri.getScheme() != "https" && uri.getScheme() != "http") {
        throw TransportError{"unsupported scheme"};
    }
    for (const auto& param : params) {
        uri.addQueryParameter(param.first, param.second);
    }
    return uri;
}

/// The target without its query, for log records.
std::string Describe(const std::string& method, const std::string& target)
{
    return method + " " + target.substr(0, target.find('?'));
}

bool HasLineBreak(const std::string& text)
{
    return text.find_first_of("\r\n") != std::string::npos;
}

/// The request line and headers; a header that would split the request is refused.
Poco::Net::HTTPRequest BuildRequest(const std::string& method, const Poco::URI& uri,
                                    const std::map<std::string, std::string>& headers, const std::string* body)
{
    std::string path = uri.getPathAndQuery();
    Poco::Net::HTTPRequest request(method, path.empty() ? "/" : path, Poco::Net::HTTPMessage::HTTP_1_1);
    for (const auto& header : headers) {
        if (header.first.empty() || HasLineBreak(header.first) || HasLineBreak(header.second)) {
            throw TransportError{"invalid request header"};
        }
        request.set(header.first, header.second);
    }
    if (body != nullptr) {
        request.setContentLength(static_cast<std::streamsize>(body->size()));
    }
    request.setKeepAlive(false);
    return request;
}

/// A session towards the URI's host, bounded by `watchdog`, with the proxy
/// from the configuration only (never from the environment or a process-wide
/// default). `resume`: a TLS session to offer the server.
std::unique_ptr<Poco::Net::HTTPClientSession> OpenSession(const Poco::URI& uri, const Poco::Net::Context::Ptr& context,
                                                          const Poco::Net::Session::Ptr& resume,
                                                          CallWatchdog& watchdog)
{
    const Framework::ConfigManager* config = Framework::ConfigManager::GetInstance();
    const Poco::Timespan connectTimeout(config->GetConnectTimeout(), 0);
    std::unique_ptr<Poco::Net::HTTPClientSession> session;
    if (uri.getScheme() == "https") {
        session.reset(new BoundedHttpsSession(uri.getHost(), uri.getPort(), context, resume, connectTimeout, watchdog));
    } else {
        session.reset(new BoundedHttpSession(uri.getHost(), uri.getPort(), connectTimeout, watchdog));
    }
    session->setProxyConfig(Poco::Net::HTTPClientSession::ProxyConfig());
    const std::string proxyHost = config->GetProxyHost();
    if (!proxyHost.empty()) {
        session->setProxy(proxyHost, static_cast<Poco::UInt16>(config->GetProxyPort()));
    }
    session->setKeepAlive(false);
    return session;
}

/// Reads the response body, at most kMaxResponseBytes.
void ReadBody(const Poco::Net::HTTPResponse& response, std::istream& in, std::string& body)
{
    if (response.hasContentLength() && response.getContentLength64() > kMaxResponseBytes) {
        throw TransportError{"response body too large"};
    }
    // Failures of the underlying socket (time-outs) surface as exceptions.
    in.exceptions(std::ios::badbit);
    char buffer[8192];
    while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
        if (static_cast<std::streamsize>(body.size()) + in.gcount() > kMaxResponseBytes) {
            throw TransportError{"response body too large"};
        }
        body.append(buffer, static_cast<size_t>(in.gcount()));
    }
}

void CopyHeaders(const Poco::Net::HTTPResponse& response, std::map<std::string, std::string>& out)
{
    for (const auto& header : response) {
        auto inserted = out.emplace(header.first, header.second);
        if (!inserted.second) {
            inserted.first->second += ", " + header.second;
        }
    }
}

/// The client context for `caFile`, made anew when the file named changed
/// (or after Reset). The shared pointer owns one reference of the counted
/// context; sessions hold their own.
Poco::Net::Context::Ptr CachedContext(const std::string& caFile, std::string& cachedFile,
                                      std::shared_ptr<Poco::Net::Context>& cached)
{
    if (!cached || cachedFile != caFile) {
        Poco::Net::Context::Ptr created = TlsContextFactory::CreateClientContext(caFile);
        created->duplicate();
        cached.reset(created.get(), [](Poco::Net::Context* c) { c->release(); });
        cachedFile = caFile;
    }
    return Poco::Net::Context::Ptr(cached.get(), true);
}

/// Sends `request` with `body` and reads the answer; the HTTP status.
int Exchange(Poco::Net::HTTPClientSession& session, Poco::Net::HTTPRequest& request, const std::string* body,
             std::map<std::string, std::string>& responseHeaders, std::string& responseBody)
{
    std::ostream& out = session.sendRequest(request);
    if (body != nullptr) {
        out.write(body->data(), static_cast<std::streamsize>(body->size()));
    }
    if (!out) {
        throw TransportError{"sending the request failed"};
    }
    Poco::Net::HTTPResponse response;
    std::istream& in = session.receiveResponse(response);
    CopyHeaders(response, responseHeaders);
    ReadBody(response, in, responseBody);
    return static_cast<int>(response.getStatus());
}

} // namespace

HttpUtils* HttpUtils::GetInstance()
{
    static HttpUtils instance;
    return &instance;
}

int HttpUtils::Get(const std::string& url, const std::map<std::string, std::string>& params,
                   const std::map<std::string, std::string>& headers,
                   std::map<std::string, std::string>& responseHeaders, std::string& responseBody,
                   int expectedStatus)
{
    return Send(Poco::Net::HTTPRequest::HTTP_GET, url, params, headers, nullptr, responseHeaders, responseBody,
                expectedStatus);
}

int HttpUtils::Post(const std::string& url, const std::map<std::string, std::string>& params,
                    const std::map<std::string, std::string>& headers, const std::string& body,
                    std::map<std::string, std::string>& responseHeaders, std::string& responseBody,
                    int expectedStatus)
{
    return Send(Poco::Net::HTTPRequest::HTTP_POST, url, params, headers, &body, responseHeaders, responseBody,
                expectedStatus);
}

void HttpUtils::Reset()
{
    std::lock_guard<std::mutex> guard(lock);
    context.reset();
    contextCaFile.clear();
    tlsSessions.clear();
}

int HttpUtils::Send(const std::string& method, const std::string& url,
                    const std::map<std::string, std::string>& params,
                    const std::map<std::string, std::string>& headers, const std::string* body,
                    std::map<std::string, std::string>& responseHeaders, std::string& responseBody,
                    int expectedStatus)
{
    responseHeaders.clear();
    responseBody.clear();
    const Framework::ConfigManager* config = Framework::ConfigManager::GetInstance();
    // The whole call, whatever the server does, ends within connect plus read
    // time-out: callers (a login waiting in the PAM module) count on it.
    const int budgetSeconds = config->GetConnectTimeout() + config->GetReadTimeout();
    std::string reason;
    std::string target = url;
    try {
        const Poco::URI uri = BuildUri(url, params);
        target = uri.getScheme() + "://" + uri.getAuthority() + uri.getPath();
        Poco::Net::HTTPRequest request = BuildRequest(method, uri, headers, body);
        const std::string endpoint = uri.getHost() + ":" + std::to_string(uri.getPort());
        Poco::Net::Context::Ptr tls;
        Poco::Net::Session::Ptr resume;
        if (uri.getScheme() == "https") {
            tls = TlsFor(config->GetCaFile(), endpoint, resume);
        }
        CallWatchdog watchdog{std::chrono::seconds(budgetSeconds)};
        try {
            std::unique_ptr<Poco::Net::HTTPClientSession> session = OpenSession(uri, tls, resume, watchdog);
            const int status = Exchange(*session, request, body, responseHeaders, responseBody);
            if (auto* secure = dynamic_cast<BoundedHttpsSession*>(session.get())) {
                RememberSession(tls, endpoint, secure->SessionForReuse());
            }
            if (status != expectedStatus) {
                SDK_LOG_WARNING("HTTP " + Describe(method, target) + " answered status(" + std::to_string(status) +
                                ").");
            }
            return status;
        } catch (...) {
            if (watchdog.Expired()) {
                throw TransportError{"no complete answer within " + std::to_string(budgetSeconds) + " s"};
            }
            throw;
        }
    } catch (const TransportError& e) {
        reason = e.reason;
    } catch (const Poco::Exception& e) {
        reason = e.displayText();
    } catch (const std::exception& e) {
        reason = e.what();
    } catch (...) {
        reason = "unknown failure";
    }
    responseHeaders.clear();
    responseBody.clear();
    responseBody.shrink_to_fit();
    SDK_LOG_ERROR("HTTP " + Describe(method, target) + " failed: " + reason + ".");
    return -1;
}

Poco::Net::Context::Ptr HttpUtils::TlsFor(const std::string& caFile, const std::string& endpoint,
                                          Poco::Net::Session::Ptr& resume)
{
    std::lock_guard<std::mutex> guard(lock);
    if (!context || contextCaFile != caFile) {
        // Sessions were verified against the former CA: none is offered again.
        tlsSessions.clear();
    }
    Poco::Net::Context::Ptr tls = CachedContext(caFile, contextCaFile, context);
    auto found = tlsSessions.find(endpoint);
    if (found != tlsSessions.end()) {
        resume = found->second;
    }
    return tls;
}

void HttpUtils::RememberSession(const Poco::Net::Context::Ptr& tls, const std::string& endpoint,
                                const Poco::Net::Session::Ptr& session)
{
    std::lock_guard<std::mutex> guard(lock);
    // Only for the context still in use: Reset or a new CA file may have
    // replaced it while this call ran.
    if (session && context && context.get() == tls.get()) {
        tlsSessions[endpoint] = session;
    }
}

} // namespace SDK
