#include "TestSupport/HttpsTestServer.h"

#include <chrono>
#include <deque>
#include <mutex>
#include <thread>

#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerRequestImpl.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/NetSSL.h>
#include <Poco/Net/SecureServerSocket.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/StreamCopier.h>
#include <Poco/URI.h>

namespace TestSupport {

struct HttpsTestServer::State {
    Poco::ThreadPool threads{2, 16};
    std::unique_ptr<Poco::Net::HTTPServer> server;  ///< present while serving
    mutable std::mutex lock;
    std::map<std::string, std::deque<ScriptedAnswer>> queued;
    std::vector<RecordedRequest> requests;
};

namespace {

// Records every request and answers it with the answer queued next for its
// path, or 200 and an empty body. Runs on the connection's thread; the server
// joins every such thread before the state goes.
struct Handler : Poco::Net::HTTPRequestHandler, Poco::Net::HTTPRequestHandlerFactory {
    explicit Handler(HttpsTestServer::State& shared) : state(shared) {}
    Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest&) override
    {
        return new Handler(state);
    }
    void handleRequest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) override
    {
        const Poco::URI uri(request.getURI());
        const Poco::URI::QueryParameters parameters = uri.getQueryParameters();
        RecordedRequest recorded{request.getMethod(), uri.getPath(), {parameters.begin(), parameters.end()},
                                 {request.begin(), request.end()}, ""};
        auto& secure = static_cast<Poco::Net::HTTPServerRequestImpl&>(request);  // what an HTTPServer hands out
        recorded.resumedTls = Poco::Net::SecureStreamSocket(secure.socket()).sessionWasReused();
        Poco::StreamCopier::copyToString(request.stream(), recorded.body);
        ScriptedAnswer answer;
        {
            std::lock_guard<std::mutex> guard(state.lock);
            std::deque<ScriptedAnswer>& forPath = state.queued[recorded.path];
            state.requests.push_back(std::move(recorded));
            if (!forPath.empty()) {
                answer = forPath.front();
                forPath.pop_front();
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(answer.dripMs));
        response.setStatus(static_cast<Poco::Net::HTTPResponse::HTTPStatus>(answer.status));
        response.setChunkedTransferEncoding(answer.chunked);
        response.setContentLength(answer.chunked ? Poco::Net::HTTPMessage::UNKNOWN_CONTENT_LENGTH
                                                 : static_cast<std::streamsize>(answer.body.size()));
        // A client that gave up makes this throw, which the server catches: nobody is left to tell.
        std::ostream& out = response.send();
        const size_t step = answer.dripMs > 0 ? 1 : answer.body.size();
        for (size_t at = 0; at < answer.body.size() && out; at += step) {
            out.write(answer.body.data() + at, static_cast<std::streamsize>(step)) << std::flush;
            std::this_thread::sleep_for(std::chrono::milliseconds(answer.dripMs));
        }
    }
    HttpsTestServer::State& state;
};

} // namespace

HttpsTestServer::HttpsTestServer(const std::string& cert, const std::string& key)
    : certFile(cert), keyFile(key), state(std::make_unique<State>()) {}

HttpsTestServer::~HttpsTestServer() { Stop(); }

void HttpsTestServer::Stop()
{
    if (state->server) {
        state->server->stopAll(true);
        state->threads.joinAll();
        state->server.reset();
    }
}

bool HttpsTestServer::Start(std::string& error, unsigned short port)
{
    try {
        Poco::Net::initializeSSL();  // reference-counted; never undone here, so the library stays up for the process
        Poco::Net::Context::Ptr context(new Poco::Net::Context(Poco::Net::Context::TLS_SERVER_USE, keyFile, certFile,
                                                               "", Poco::Net::Context::VERIFY_NONE));
        context->enableSessionCache(true, "brackmoor-test");
        Poco::Net::SecureServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", port), 64, context);
        Poco::AutoPtr<Poco::Net::HTTPServerParams> params(new Poco::Net::HTTPServerParams);
        params->setKeepAlive(false);
        // Bounds how long the destructor waits for a client that connected and went quiet.
        params->setTimeout(Poco::Timespan(5, 0));
        state->server = std::make_unique<Poco::Net::HTTPServer>(new Handler(*state), state->threads, socket, params);
        state->server->start();
        return true;
    } catch (const Poco::Exception& e) {
        error = "HttpsTestServer: " + e.displayText();
    }
    return false;
}

unsigned short HttpsTestServer::Port() const { return state->server ? state->server->port() : 0; }

void HttpsTestServer::Queue(const std::string& path, const ScriptedAnswer& answer)
{
    std::lock_guard<std::mutex> guard(state->lock);
    state->queued[path].push_back(answer);
}

std::vector<RecordedRequest> HttpsTestServer::Requests() const
{
    std::lock_guard<std::mutex> guard(state->lock);
    return state->requests;
}

} // namespace TestSupport
