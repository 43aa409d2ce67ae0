#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <Poco/Data/Session.h>

namespace brackmoor::verifyd {

/// Database sessions shared by the request threads: at most `capacity` open at
/// once, opened on first need, kept open for the next borrower.
///
/// There is no background thread: a session is only opened, checked or closed
/// by the thread that borrows or returns it, so nothing can be waiting for a
/// timer when the pool goes away. A session that failed is discarded instead
/// of being handed out again, which is how a connection to a database server
/// that restarted gets replaced.
class ConnectionPool {
public:
    /// Runs on every new session before it is first lent (pragmas, settings).
    using Prepare = std::function<void(Poco::Data::Session&)>;
    /// Runs before a session is opened; false and the reason set when there is
    /// no point in trying (the server does not answer).
    using Probe = std::function<bool(std::string& why)>;

    /// One borrowed session; returned to the pool when the lease ends.
    class Lease {
    public:
        Lease(ConnectionPool& owner, Poco::Data::Session session);
        ~Lease();
        Lease(Lease&& other) noexcept;
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;
        Lease& operator=(Lease&&) = delete;

        Poco::Data::Session& operator*() { return *session; }

        /// Closes the session instead of returning it: it failed, and may be
        /// in a state nobody should inherit.
        void Discard();

    private:
        ConnectionPool* pool;
        std::optional<Poco::Data::Session> session;
    };

    /// `connector` is a registered POCO Data connector ("SQLite", "PostgreSQL");
    /// `openTimeout` bounds how long opening one session may take.
    ConnectionPool(std::string connector, std::string connectionString, std::size_t capacity,
                   std::chrono::seconds openTimeout, Prepare prepare, Probe probe = nullptr);
    ~ConnectionPool();

    ConnectionPool(const ConnectionPool&) = delete;
    ConnectionPool& operator=(const ConnectionPool&) = delete;

    /// An idle session, a new one while fewer than `capacity` are open, or
    /// else the next one returned. Throws Poco::Exception when a session
    /// cannot be opened or none comes back within the open timeout.
    Lease Borrow();

private:
    void Return(Poco::Data::Session session, bool keep);

    const std::string connectorName;
    const std::string connection;
    const std::size_t limit;
    const std::chrono::seconds timeout;
    const Prepare prepareSession;
    const Probe probeServer;

    std::mutex lock;
    std::condition_variable returned;
    std::vector<Poco::Data::Session> idle;
    std::size_t open = 0; ///< idle and lent sessions together
};

} // namespace brackmoor::verifyd
