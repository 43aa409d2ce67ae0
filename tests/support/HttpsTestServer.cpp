#include "TestSupport/HttpsTestServer.h"

#include <condition_variable>
#include <chrono>
#include <deque>
#include <thread>
#include <mutex>

#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerRequestImpl.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/NetSSL.h>
#include <Poco/Net/SecureServerSocket.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/StreamCopier.h>
#include <Poco/ThreadPool.h>
#include <Poco/URI.h>

namespace TestSupport {

/// Everything the connection threads share with the test.
struct HttpsTestServer::State {
    mutable std::mutex lock;
    std::condition_variable released;
    std::map<std::string, std::deque<ScriptedAnswer>> queued;
    bool stall = false;
    bool stopping = false;
    std::vector<RecordedRequest> requests;

    /// Records `request` and picks its answer; false when the request is to
    /// stay unanswered (stall mode until the server stops).
    bool Take(RecordedRequest request, ScriptedAnswer& answer)
    {
        std::unique_lock<std::mutex> guard(lock);
        std::deque<ScriptedAnswer>& forPath = queued[request.path];
        requests.push_back(std::move(request));
        released.wait(guard, [this] { return !stall || stopping; });
        if (!forPath.empty()) {
            answer = forPath.front();
            forPath.pop_front();
        }
        return !stopping;
    }
};

namespace {

class Handler : public Poco::Net::HTTPRequestHandler {
public:
    explicit Handler(std::shared_ptr<HttpsTestServer::State> shared) : state(std::move(shared)) {}

    void handleRequest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) override
    {
        RecordedRequest recorded;
        recorded.method = request.getMethod();
        const Poco::URI uri(request.getURI());
        recorded.path = uri.getPath();
        for (const auto& param : uri.getQueryParameters()) {
            recorded.query[param.first] = param.second;
        }
        for (const auto& header : request) {
            recorded.headers[header.first] = header.second;
        }
        if (auto* impl = dynamic_cast<Poco::Net::HTTPServerRequestImpl*>(&request)) {
            recorded.resumedTls = Poco::Net::SecureStreamSocket(impl->socket()).sessionWasReused();
        }
        Poco::StreamCopier::copyToString(request.stream(), recorded.body);
        ScriptedAnswer answer;
        if (!state->Take(std::move(recorded), answer)) {
            return;
        }
        response.setStatus(static_cast<Poco::Net::HTTPResponse::HTTPStatus>(answer.status));
        for (const auto& header : answer.headers) {
            response.set(header.first, header.second);
        }
        if (answer.chunked) {
            response.setChunkedTransferEncoding(true);
        } else {
            response.setContentLength(static_cast<std::streamsize>(answer.body.size()));
        }
        // A client that gave up makes this throw, which the server catches;
        // nobody is left to tell.
        std::ostream& out = response.send();
        if (answer.dripMs <= 0) {
            out << answer.body;
            return;
        }
        for (char c : answer.body) {
            out << c << std::flush;
            std::this_thread::sleep_for(std::chrono::milliseconds(answer.dripMs));
            if (!out) {
                return;
            }
        }
    }

private:
    std::shared_ptr<HttpsTestServer::State> state;
};

class Factory : public Poco::Net::HTTPRequestHandlerFactory {
public:
    explicit Factory(std::shared_ptr<HttpsTestServer::State> shared) : state(std::move(shared)) {}

    Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest&) override
    {
        return new Handler(state);
    }

private:
    std::shared_ptr<HttpsTestServer::State> state;
};

} // namespace

/// The serving machinery, present after a successful Start.
struct HttpsTestServer::Runtime {
    Poco::ThreadPool threads{2, 16};
    std::unique_ptr<Poco::Net::HTTPServer> server;
    unsigned short port = 0;
};

HttpsTestServer::HttpsTestServer(const std::string& cert, const std::string& key)
    : certFile(cert), keyFile(key), state(std::make_shared<State>())
{
}

HttpsTestServer::~HttpsTestServer()
{
    Stop();
}

void HttpsTestServer::Stop()
{
    if (!runtime) {
        return;
    }
    {
        std::lock_guard<std::mutex> guard(state->lock);
        state->stopping = true;
    }
    state->released.notify_all();
    runtime->server->stopAll(true);
    runtime->threads.joinAll();
    runtime.reset();
}

bool HttpsTestServer::Start(std::string& error, unsigned short port)
{
    try {
        static std::once_flag sslReady;
        std::call_once(sslReady, [] { Poco::Net::initializeSSL(); });
        Poco::Net::Context::Ptr context(new Poco::Net::Context(Poco::Net::Context::TLS_SERVER_USE, keyFile,
                                                               certFile, "", Poco::Net::Context::VERIFY_NONE));
        context->enableSessionCache(true, "brackmoor-test");
        Poco::Net::SecureServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", port), 64, context);
        Poco::AutoPtr<Poco::Net::HTTPServerParams> params(new Poco::Net::HTTPServerParams);
        params->setKeepAlive(false);
        // Bounds how long the destructor waits for a client that connected and went quiet.
        params->setTimeout(Poco::Timespan(5, 0));
        auto started = std::make_unique<Runtime>();
        started->port = socket.address().port();
        started->server = std::make_unique<Poco::Net::HTTPServer>(new Factory(state), started->threads, socket,
                                                                 params);
        started->server->start();
        runtime = std::move(started);
        return true;
    } catch (const Poco::Exception& e) {
        error = "HttpsTestServer: " + e.displayText();
    } catch (const std::exception& e) {
        error = std::string("HttpsTestServer: ") + e.what();
    }
    return false;
}

unsigned short HttpsTestServer::Port() const
{
    return runtime ? runtime->port : 0;
}

void HttpsTestServer::Queue(const std::string& path, const ScriptedAnswer& answer)
{
    std::lock_guard<std::mutex> guard(state->lock);
    state->queued[path].push_back(answer);
}

void HttpsTestServer::SetStall(bool stall)
{
    {
        std::lock_guard<std::mutex> guard(state->lock);
        state->stall = stall;
    }
    state->released.notify_all();
}

std::vector<RecordedRequest> HttpsTestServer::Requests() const
{
    std::lock_guard<std::mutex> guard(state->lock);
    return state->requests;
}

} // namespace TestSupport
