#include "ConnectionPool.h"

#include <Poco/Data/DataException.h>
#include <Poco/Exception.h>

namespace brackmoor::verifyd {

ConnectionPool::Lease::Lease(ConnectionPool& owner, Poco::Data::Session borrowed)
    : pool(&owner), session(std::move(borrowed))
{
}

ConnectionPool::Lease::Lease(Lease&& other) noexcept
    : pool(other.pool), session(std::move(other.session))
{
    other.session.reset();
}

ConnectionPool::Lease::~Lease()
{
    if (session) {
        pool->Return(std::move(*session), true);
    }
}

void ConnectionPool::Lease::Discard()
{
    if (session) {
        pool->Return(std::move(*session), false);
        session.reset();
    }
}

ConnectionPool::ConnectionPool(std::string connector, std::string connectionString,
                               std::size_t capacity, std::chrono::seconds openTimeout,
                               Prepare prepare, Probe probe)
    : connectorName(std::move(connector)), connection(std::move(connectionString)),
      limit(capacity == 0 ? 1 : capacity), timeout(openTimeout),
      prepareSession(std::move(prepare)), probeServer(std::move(probe))
{
}

ConnectionPool::~ConnectionPool()
{
    std::lock_guard<std::mutex> guard(lock);
    for (Poco::Data::Session& session : idle) {
        try {
            session.close();
        } catch (const Poco::Exception&) {
            // Closing at exit: there is nothing left to save.
        }
    }
}

ConnectionPool::Lease ConnectionPool::Borrow()
{
    std::unique_lock<std::mutex> guard(lock);
    const bool available = returned.wait_for(guard, timeout,
                                             [this] { return !idle.empty() || open < limit; });
    if (!available) {
        throw Poco::Data::DataException("no database session became free in time");
    }
    if (!idle.empty()) {
        Poco::Data::Session session = std::move(idle.back());
        idle.pop_back();
        return Lease(*this, std::move(session));
    }
    ++open;
    guard.unlock();
    // Opened outside the lock: connecting to a server takes a round trip or
    // more, and the other threads need not wait for it.
    try {
        std::string why;
        if (probeServer && !probeServer(why)) {
            throw Poco::Data::ConnectionFailedException(why);
        }
        Poco::Data::Session session(connectorName, connection,
                                    static_cast<std::size_t>(timeout.count()));
        if (prepareSession) {
            prepareSession(session);
        }
        return Lease(*this, std::move(session));
    } catch (...) {
        guard.lock();
        --open;
        returned.notify_one();
        throw;
    }
}

void ConnectionPool::Return(Poco::Data::Session session, bool keep)
{
    if (!keep) {
        try {
            session.close();
        } catch (const Poco::Exception&) {
            // It failed already; closing it is all that is left to do.
        }
    }
    std::lock_guard<std::mutex> guard(lock);
    if (keep) {
        idle.push_back(std::move(session));
    } else {
        --open;
    }
    returned.notify_one();
}

} // namespace brackmoor::verifyd
