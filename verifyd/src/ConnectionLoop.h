#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include <openssl/ssl.h>

#include "ClientConnection.h"
#include "ConnectionCounter.h"
#include "RequestHandler.h"
#include "WorkerPool.h"
#include "brackmoor/UniqueFd.h"

namespace brackmoor::verifyd {

/// How long clients may take, and how many connections they may hold.
struct ConnectionLimits {
    /// For the TLS handshake and the first request together, for each later
    /// request from its first byte to its last, for a kept-alive connection
    /// to start its next request, and for taking an answer.
    std::chrono::milliseconds requestTimeout{5000};
    int perAddress = 32;
    int total = 1024;
    std::set<std::string> exemptAddresses; ///< trusted proxies: no bound of their own
    int requestsPerConnection = 1000;
};

/// The thread that owns every client connection: it accepts them, runs their
/// TLS handshakes, reads their requests and writes the answers, all without
/// blocking, on one epoll set. Only a complete request goes to a request
/// thread (RequestHandler on the WorkerPool), so clients that connect and send
/// nothing, or send a byte now and then, cost a descriptor and a little
/// memory but never a thread, and each of them is closed when its deadline
/// (ConnectionLimits::requestTimeout) passes.
class ConnectionLoop {
public:
    using Clock = ClientConnection::Clock;

    /// `listener` is a bound, listening, non-blocking socket owned elsewhere.
    ConnectionLoop(int listener, SSL_CTX* tls, ConnectionLimits limits, RequestHandler& handler,
                   WorkerPool& workers);
    ~ConnectionLoop();

    ConnectionLoop(const ConnectionLoop&) = delete;
    ConnectionLoop& operator=(const ConnectionLoop&) = delete;

    /// Makes the epoll set; false and `error` set when the system refuses.
    bool Open(std::string& error);

    /// Serves until Stop(): then stops accepting, closes the connections that
    /// wait for a request, and returns once the answers under way are sent
    /// (or after a grace period).
    void Run();

    /// Makes Run() wind down; callable from any thread.
    void Stop();

private:
    using Id = std::uint64_t;
    struct Answer {
        Id id;
        std::string bytes;
    };

    void Accept(Clock::time_point now);
    void Drive(Id id, ClientConnection& connection, Clock::time_point now);
    /// Reads and frames what a Reading or Idle connection received.
    void Read(Id id, ClientConnection& connection, Clock::time_point now);
    void Dispatch(Id id, ClientConnection& connection, FramedRequest framed);
    void Reply(ClientConnection& connection, std::string bytes, Clock::time_point now);
    void Wait(Id id, ClientConnection& connection, ClientConnection::Io io);
    void Watch(Id id, ClientConnection& connection, std::uint32_t events);
    void WatchListener(bool on);
    void Close(Id id);
    /// Closes every connection for which `doomed` holds.
    void CloseWhere(const std::function<bool(const ClientConnection&)>& doomed);
    /// Wakes Run() from epoll_wait, from any thread.
    void Wake();
    void TakeAnswers(Clock::time_point now);
    void Expire(Clock::time_point now);
    void BeginStop();
    bool AnswersUnderWay() const;

    const int listenSocket;
    SSL_CTX* const context;
    const ConnectionLimits limits;
    RequestHandler& requests;
    WorkerPool& pool;

    UniqueFd epoll;
    UniqueFd wake; ///< eventfd: answers are waiting, or Stop() was called
    std::unordered_map<Id, std::unique_ptr<ClientConnection>> connections;
    ConnectionCounter counter;
    Id nextId = 1;
    bool listening = false;
    Clock::time_point acceptPausedUntil;
    Clock::time_point stopDeadline;
    long refused = 0; ///< connections refused since the last report
    Clock::time_point lastRefusalReport;
    std::string lastRefused;

    std::atomic<bool> stopping{false};
    std::mutex answersLock;
    std::vector<Answer> answers;
};

} // namespace brackmoor::verifyd
