#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace TestSupport {

/// One request as the server received it.
struct RecordedRequest {
    std::string method, path;                  ///< the path decoded, without the query
    std::map<std::string, std::string> query;  ///< decoded parameters
    std::map<std::string, std::string> headers;
    std::string body;
    bool resumedTls = false;  ///< the client resumed an earlier TLS session
};

/// What the server answers to one request.
struct ScriptedAnswer {
    int status = 200;
    std::string body;
    bool chunked = false;  ///< no Content-Length: the body as one chunk
    int dripMs = 0;        ///< wait this long before answering, then write the body a byte at a time as far apart
};

/// An HTTPS server on 127.0.0.1, a real TLS peer for client tests. It records
/// every request and answers with the answers queued for its path, in order,
/// then with 200 and an empty body. Clients can resume TLS sessions. No
/// connection thread outlives the object.
class HttpsTestServer {
public:
    /// A server presenting the PEM certificate and key (see TestCertificates).
    HttpsTestServer(const std::string& certFile, const std::string& keyFile);
    ~HttpsTestServer();

    /// Binds (`port`, or an ephemeral one) and starts serving; false with `error` saying why.
    bool Start(std::string& error, unsigned short port = 0);
    /// Stops serving and closes the port; waits for every connection thread.
    void Stop();
    /// The bound port (0 before Start).
    unsigned short Port() const;
    /// "localhost:<port>", the form a client configuration takes.
    std::string Address() const { return "localhost:" + std::to_string(Port()); }

    /// Queues `answer` for the next request to `path`.
    void Queue(const std::string& path, const ScriptedAnswer& answer);
    /// The requests received so far, oldest first.
    std::vector<RecordedRequest> Requests() const;

    struct State;  ///< what the connection threads share with the test

private:
    std::string certFile, keyFile;
    std::unique_ptr<State> state;
};

} // namespace TestSupport
