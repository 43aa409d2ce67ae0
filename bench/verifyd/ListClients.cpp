#include "ListClients.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/StreamCopier.h>

#include "SDK/HttpUtils.h"

namespace verifyd_bench {
namespace {

using Clock = std::chrono::steady_clock;
/// One list request; true when it was answered 200 with the expected body.
using ListRequest = std::function<bool()>;

ListRequest ThroughSdk(const std::string& agent, const std::string& token,
                       const std::string& expected)
{
    return [=] {
        std::map<std::string, std::string> headers;
        std::string body;
        const int status = SDK::HttpUtils::GetInstance()->Get(
            "https://SERVICE_ADDRESS/tfa_phone_num", {{"agent_id", agent}},
            {{"X-Auth-Token", token}}, headers, body, 200);
        return status == 200 && body == expected;
    };
}

Poco::Net::Context::Ptr ClientContext(const std::string& caFile)
{
    Poco::Net::Context::Params params;
    params.caLocation = caFile;
    params.verificationMode = Poco::Net::Context::VERIFY_STRICT;
    Poco::Net::Context::Ptr context =
        new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, params);
    context->enableSessionCache(true);
    return context;
}

/// One list request on `session`; true when answered 200 with `expected`.
bool ListOn(Poco::Net::HTTPSClientSession& session, const std::string& target,
            const std::string& token, const std::string& expected)
{
    try {
        Poco::Net::HTTPRequest request("GET", target, Poco::Net::HTTPMessage::HTTP_1_1);
        request.set("X-Auth-Token", token);
        request.setKeepAlive(session.getKeepAlive());
        session.sendRequest(request);
        Poco::Net::HTTPResponse response;
        std::string body;
        Poco::StreamCopier::copyToString(session.receiveResponse(response), body);
        return response.getStatus() == Poco::Net::HTTPResponse::HTTP_OK && body == expected;
    } catch (const Poco::Exception&) {
        session.reset();
        return false;
    }
}

ListRequest OverKeptConnection(const std::string& agent, const std::string& token,
                               const std::string& expected, unsigned short port,
                               const std::string& caFile)
{
    auto session =
        std::make_shared<Poco::Net::HTTPSClientSession>("localhost", port, ClientContext(caFile));
    session->setKeepAlive(true);
    const std::string target = "/tfa_phone_num?agent_id=" + agent;
    return [=] { return ListOn(*session, target, token, expected); };
}

/// A new connection per request, as the agent makes them, resuming the TLS
/// session of the one before: what an agent costs once its HTTPS client
/// keeps its session between requests.
ListRequest WithResumedSession(const std::string& agent, const std::string& token,
                               const std::string& expected, unsigned short port,
                               const std::string& caFile, bool resume)
{
    const Poco::Net::Context::Ptr context = ClientContext(caFile);
    auto last = std::make_shared<Poco::Net::Session::Ptr>();
    const std::string target = "/tfa_phone_num?agent_id=" + agent;
    return [=] {
        Poco::Net::HTTPSClientSession session("localhost", port, context, *last);
        session.setKeepAlive(false);
        const bool ok = ListOn(session, target, token, expected);
        if (!resume) {
            return ok;
        }
        // Taken from the socket after the answer: a TLS 1.3 ticket arrives
        // after the handshake, so HTTPSClientSession::sslSession(), which
        // keeps the session of the moment it connected, cannot resume.
        try {
            *last = Poco::Net::SecureStreamSocket(session.socket()).currentSession();
        } catch (const Poco::Exception&) {
            last->reset();
        }
        return ok;
    };
}

} // namespace

ClientTotals RunListClients(int clients, long requests, std::chrono::seconds limit,
                            Connection connection, const std::string& agent,
                            const std::string& token, const std::string& expectedBody,
                            unsigned short port, const std::string& caFile)
{
    std::atomic<long> issued{0};
    std::mutex lock;
    ClientTotals totals;
    const Clock::time_point start = Clock::now();
    const Clock::time_point deadline = start + limit;

    const auto client = [&] {
        const ListRequest list =
            connection == Connection::PerRequest ? ThroughSdk(agent, token, expectedBody)
            : connection == Connection::KeepAlive
                ? OverKeptConnection(agent, token, expectedBody, port, caFile)
                : WithResumedSession(agent, token, expectedBody, port, caFile,
                                     connection == Connection::Resumed);
        std::vector<double> latencies;
        long failures = 0;
        while (issued++ < requests && Clock::now() < deadline) {
            const Clock::time_point sent = Clock::now();
            const bool ok = list();
            latencies.push_back(
                std::chrono::duration<double, std::milli>(Clock::now() - sent).count());
            failures += ok ? 0 : 1;
        }
        std::lock_guard<std::mutex> guard(lock);
        totals.requests += static_cast<long>(latencies.size()) - failures;
        totals.failures += failures;
        totals.latenciesMs.insert(totals.latenciesMs.end(), latencies.begin(), latencies.end());
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back(client);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    totals.elapsed = Clock::now() - start;
    return totals;
}

} // namespace verifyd_bench
