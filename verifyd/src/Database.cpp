#include "Database.h"

#include <ctime>
#include <mutex>

#include <Poco/Data/PostgreSQL/Connector.h>
#include <Poco/Data/SQLite/Connector.h>
#include <Poco/Data/Session.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Logger.h>
#include <Poco/Path.h>
#include <libpq-fe.h>

#include "ConnectionPool.h"
#include "PostgresUrl.h"
#include "Schema.h"
#include "Secrets.h"
#include "SqlTransaction.h"

namespace brackmoor::verifyd {
namespace {

using namespace Poco::Data::Keywords;
using Poco::Data::Session;
using Mode = SqlTransaction::Mode;

/// Writers wait this long for another writer's lock, in either engine.
constexpr int kLockWaitMs = 5000;
/// A statement that runs longer than this on the server is cancelled, so a
/// stuck database cannot hold the request threads for ever.
constexpr int kStatementLimitMs = 10000;
/// Compared with a presented token's digest when the agent does not exist:
/// as long as a digest, equal to none.
const std::string kNoAgentDigest(64, 'x');

void RegisterConnectors()
{
    static std::once_flag once;
    std::call_once(once, [] {
        Poco::Data::SQLite::Connector::registerConnector();
        Poco::Data::PostgreSQL::Connector::registerConnector();
    });
}

Poco::Logger& Log()
{
    return Poco::Logger::get("verifyd.database");
}

/// An exception's text on one line: libpq spreads its messages over several.
std::string OneLine(const std::string& message)
{
    std::string text;
    for (const char c : message) {
        const bool blank = c == '\n' || c == '\t' || c == ' ';
        if (!blank) {
            text.push_back(c);
        } else if (!text.empty() && text.back() != ' ') {
            text.push_back(' ');
        }
    }
    while (!text.empty() && text.back() == ' ') {
        text.pop_back();
    }
    return text;
}

/// A pool for `location`, or nullptr and `error` set.
std::unique_ptr<ConnectionPool> MakePool(const std::string& location, int connections,
                                         const SqlDialect& dialect, std::string& error)
{
    const auto size = static_cast<std::size_t>(connections);
    if (dialect.IsPostgres()) {
        std::string keywords;
        if (!PostgresConnectionString(location, keywords, error)) {
            return nullptr;
        }
        const auto prepare = [](Session& session) {
            // Notices ("already exists, skipping") would go to standard error.
            session << "SET client_min_messages = warning", now;
            session << "SET lock_timeout = " + std::to_string(kLockWaitMs), now;
            session << "SET statement_timeout = " + std::to_string(kStatementLimitMs), now;
        };
        // POCO's connector keeps libpq's connection object of a failed attempt
        // (some 36 KB). Asking the server first, with a call that cleans up
        // after itself, keeps an outage from costing that on every request.
        const auto probe = [ping = "connect_timeout=5 " + keywords](std::string& why) {
            const PGPing answer = PQping(ping.c_str());
            why = answer == PQPING_NO_RESPONSE ? "the PostgreSQL server does not answer"
                                               : "the PostgreSQL server refuses connections";
            return answer == PQPING_OK;
        };
        return std::make_unique<ConnectionPool>(dialect.Connector(), keywords, size,
                                                std::chrono::seconds(5), prepare, probe);
    }
    // SQLite would retry opening a file in a missing folder until its time-out
    // ran out; a missing folder is a configuration error, said at once.
    const std::string folder = Poco::Path(location).absolute().parent().toString();
    if (!Poco::File(folder).exists() || !Poco::File(folder).isDirectory()) {
        error = location + ": the folder " + folder + " does not exist";
        return nullptr;
    }
    return std::make_unique<ConnectionPool>(
        dialect.Connector(), location, size, std::chrono::seconds(1), [](Session& session) {
            session << "PRAGMA busy_timeout = " + std::to_string(kLockWaitMs), now;
            session << "PRAGMA foreign_keys = ON", now;
        });
}

/// Whether agent `id` exists; in PostgreSQL its row is locked until the
/// transaction ends (SqlDialect::LockAgent).
bool LockAgent(Session& session, const SqlDialect& dialect, const std::string& id)
{
    std::vector<std::string> ids;
    session << dialect.LockAgent(), bind(id), into(ids), now;
    return !ids.empty();
}

int ContactCount(Session& session, const SqlDialect& dialect, const std::string& agent,
                 const std::string* contact)
{
    int count = 0;
    if (contact == nullptr) {
        session << dialect.Sql("SELECT COUNT(*) FROM contacts WHERE agent_id = ?"), bind(agent),
            into(count), now;
    } else {
        session << dialect.Sql("SELECT COUNT(*) FROM contacts WHERE agent_id = ? AND contact = ?"),
            bind(agent), bind(*contact), into(count), now;
    }
    return count;
}

std::vector<std::string> Contacts(Session& session, const SqlDialect& dialect,
                                  const std::string& agent)
{
    std::vector<std::string> contacts;
    session << dialect.Sql("SELECT contact FROM contacts WHERE agent_id = ? ORDER BY id"),
        bind(agent), into(contacts), now;
    return contacts;
}

/// Runs `body` on a pooled connection and turns any database failure into
/// StoreResult::Failed with a log line naming the operation. The connection
/// is dropped then: it may be broken (a server that restarted, say).
template <typename Body>
StoreResult Guarded(ConnectionPool& pool, const char* operation, Body&& body)
{
    try {
        ConnectionPool::Lease lease = pool.Borrow();
        try {
            return body(*lease);
        } catch (const Poco::Exception&) {
            lease.Discard();
            throw;
        }
    } catch (const Poco::Exception& e) {
        Log().error("database: %s failed: %s", std::string(operation), OneLine(e.displayText()));
        return StoreResult::Failed;
    }
}

} // namespace

std::unique_ptr<Database> Database::Open(const std::string& location, int connections,
                                         std::string& error)
{
    RegisterConnectors();
    const SqlDialect dialect(IsPostgresUrl(location) ? SqlDialect::Engine::PostgreSQL
                                                     : SqlDialect::Engine::SQLite);
    // Never the URL itself in a message: it may hold a password.
    const std::string name = dialect.IsPostgres() ? "the PostgreSQL database" : location;
    std::unique_ptr<ConnectionPool> pool = MakePool(location, connections, dialect, error);
    if (!pool) {
        error = dialect.IsPostgres() ? "database.url: " + error : error;
        return nullptr;
    }
    try {
        ConnectionPool::Lease lease = pool->Borrow();
        Session& session = *lease;
        if (!dialect.IsPostgres()) {
            std::string journal;
            session << "PRAGMA journal_mode = WAL", into(journal), now;
            if (journal != "wal") {
                error = name + ": cannot switch the database to WAL mode (got " + journal + ")";
                return nullptr;
            }
        }
        if (!MigrateSchema(session, dialect, error)) {
            error = name + ": " + OneLine(error);
            return nullptr;
        }
    } catch (const Poco::Exception& e) {
        error = name + ": cannot open the database: " + OneLine(e.displayText());
        return nullptr;
    }
    return std::unique_ptr<Database>(new Database(std::move(pool), dialect));
}

Database::Database(std::unique_ptr<ConnectionPool> sessions, SqlDialect engine)
    : pool(std::move(sessions)), dialect(engine)
{
}

Database::~Database() = default;

StoreResult Database::AddAgent(const std::string& id, const std::string& tokenHash)
{
    return Guarded(*pool, "add agent", [&](Session& session) {
        SqlTransaction transaction(session, dialect, Mode::Write);
        if (LockAgent(session, dialect, id)) {
            return StoreResult::Duplicate;
        }
        const Poco::Int64 created = std::time(nullptr);
        session << dialect.Sql("INSERT INTO agents (id, token_sha256, created_at) VALUES (?, ?, ?)"),
            bind(id), bind(tokenHash), bind(created), now;
        transaction.Commit();
        return StoreResult::Ok;
    });
}

StoreResult Database::RemoveAgent(const std::string& id)
{
    return Guarded(*pool, "remove agent", [&](Session& session) {
        SqlTransaction transaction(session, dialect, Mode::Write);
        if (!LockAgent(session, dialect, id)) {
            return StoreResult::NotFound;
        }
        session << dialect.Sql("DELETE FROM code_requests WHERE agent_id = ?"), bind(id), now;
        session << dialect.Sql("DELETE FROM contacts WHERE agent_id = ?"), bind(id), now;
        session << dialect.Sql("DELETE FROM agents WHERE id = ?"), bind(id), now;
        transaction.Commit();
        return StoreResult::Ok;
    });
}

StoreResult Database::ListAgents(std::vector<AgentSummary>& agents)
{
    return Guarded(*pool, "list agents", [&](Session& session) {
        std::vector<std::string> ids;
        std::vector<Poco::Int64> created;
        std::vector<int> counts;
        session << "SELECT a.id, a.created_at, COUNT(c.id) FROM agents a"
                   " LEFT JOIN contacts c ON c.agent_id = a.id GROUP BY a.id ORDER BY a.id",
            into(ids), into(created), into(counts), now;
        agents.clear();
        for (std::size_t i = 0; i < ids.size(); ++i) {
            agents.push_back({ids[i], static_cast<long long>(created[i]), counts[i]});
        }
        return StoreResult::Ok;
    });
}

StoreResult Database::Authenticate(const std::string& id, const std::string& tokenHash,
                                   std::vector<std::string>& contacts)
{
    return Guarded(*pool, "authenticate", [&](Session& session) {
        SqlTransaction snapshot(session, dialect, Mode::Read);
        std::vector<std::string> digests;
        session << dialect.Sql("SELECT token_sha256 FROM agents WHERE id = ?"), bind(id),
            into(digests), now;
        const bool known = !digests.empty();
        // Compared either way, so an unknown agent costs what a wrong token does.
        const bool match = SameSecret(tokenHash, known ? digests.front() : kNoAgentDigest);
        if (!known || !match) {
            return StoreResult::NotFound;
        }
        contacts = Contacts(session, dialect, id);
        snapshot.Commit();
        return StoreResult::Ok;
    });
}

StoreResult Database::CountCodeRequest(const std::string& agent, std::int64_t nowMs,
                                       const CodeLimits& limits, std::chrono::seconds& retryAfter)
{
    return Guarded(*pool, "count code request", [&](Session& session) {
        SqlTransaction transaction(session, dialect, Mode::Write);
        if (!LockAgent(session, dialect, agent)) {
            return StoreResult::NotFound;
        }
        const Poco::Int64 hourAgo = nowMs - 3600 * 1000;
        session << dialect.Sql("DELETE FROM code_requests WHERE agent_id = ? AND requested_ms <= ?"),
            bind(agent), bind(hourAgo), now;
        std::vector<Poco::Int64> counted;
        session << dialect.Sql("SELECT requested_ms FROM code_requests WHERE agent_id = ?"
                               " ORDER BY requested_ms"),
            bind(agent), into(counted), now;
        if (!limits.Admit(counted, nowMs, retryAfter)) {
            transaction.Commit(); // the expired rows stay deleted
            return StoreResult::Limited;
        }
        session << dialect.Sql("INSERT INTO code_requests (agent_id, requested_ms) VALUES (?, ?)"),
            bind(agent), bind(nowMs), now;
        transaction.Commit();
        return StoreResult::Ok;
    });
}

StoreResult Database::AddContact(const std::string& agent, const std::string& contact)
{
    return Guarded(*pool, "add contact", [&](Session& session) {
        SqlTransaction transaction(session, dialect, Mode::Write);
        if (!LockAgent(session, dialect, agent)) {
            return StoreResult::NotFound;
        }
        if (ContactCount(session, dialect, agent, &contact) > 0) {
            return StoreResult::Duplicate;
        }
        if (ContactCount(session, dialect, agent, nullptr) >= kMaxContactsPerAgent) {
            return StoreResult::Full;
        }
        const Poco::Int64 created = std::time(nullptr);
        session << dialect.Sql(
                       "INSERT INTO contacts (agent_id, contact, created_at) VALUES (?, ?, ?)"),
            bind(agent), bind(contact), bind(created), now;
        transaction.Commit();
        return StoreResult::Ok;
    });
}

StoreResult Database::RemoveContact(const std::string& agent, const std::string& contact)
{
    return Guarded(*pool, "remove contact", [&](Session& session) {
        SqlTransaction transaction(session, dialect, Mode::Write);
        if (ContactCount(session, dialect, agent, &contact) == 0) {
            return StoreResult::NotFound;
        }
        session << dialect.Sql("DELETE FROM contacts WHERE agent_id = ? AND contact = ?"),
            bind(agent), bind(contact), now;
        transaction.Commit();
        return StoreResult::Ok;
    });
}

StoreResult Database::ListContacts(const std::string& agent, std::vector<std::string>& contacts)
{
    return Guarded(*pool, "list contacts", [&](Session& session) {
        SqlTransaction snapshot(session, dialect, Mode::Read);
        int agents = 0;
        session << dialect.Sql("SELECT COUNT(*) FROM agents WHERE id = ?"), bind(agent),
            into(agents), now;
        if (agents == 0) {
            return StoreResult::NotFound;
        }
        contacts = Contacts(session, dialect, agent);
        snapshot.Commit();
        return StoreResult::Ok;
    });
}

std::string Database::CheckIntegrity()
{
    std::vector<std::string> findings;
    const StoreResult result = Guarded(*pool, "integrity check", [&](Session& session) {
        if (dialect.IsPostgres()) {
            int orphans = 0;
            session << "SELECT (SELECT COUNT(*) FROM contacts WHERE agent_id NOT IN"
                       " (SELECT id FROM agents)) + (SELECT COUNT(*) FROM code_requests"
                       " WHERE agent_id NOT IN (SELECT id FROM agents))",
                into(orphans), now;
            findings.push_back(orphans == 0 ? "ok" : std::to_string(orphans) + " rows without agent");
        } else {
            session << "PRAGMA integrity_check", into(findings), now;
        }
        return StoreResult::Ok;
    });
    if (result != StoreResult::Ok) {
        return "integrity check failed to run";
    }
    std::string text;
    for (const std::string& line : findings) {
        text += (text.empty() ? "" : "; ") + line;
    }
    return text;
}

} // namespace brackmoor::verifyd
