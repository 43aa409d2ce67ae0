#include "Database.h"

#include <ctime>
#include <mutex>

#include <Poco/Data/SQLite/Connector.h>
#include <Poco/Data/Session.h>
#include <Poco/Data/SessionPool.h>
#include <Poco/Exception.h>
#include <Poco/Logger.h>

#include "Schema.h"
#include "SqlTransaction.h"

namespace brackmoor::verifyd {
namespace {

using namespace Poco::Data::Keywords;
using Poco::Data::Session;
using Mode = SqlTransaction::Mode;

/// Writers wait this long for another process's write transaction.
constexpr int kBusyTimeoutMs = 5000;

/// A session pool whose new connections wait for locks and enforce foreign keys.
class SqlitePool : public Poco::Data::SessionPool {
public:
    SqlitePool(const std::string& path, int connections)
        : Poco::Data::SessionPool("SQLite", path, 1, connections, 60)
    {
    }

protected:
    void customizeSession(Session& session) override
    {
        session << "PRAGMA busy_timeout = " + std::to_string(kBusyTimeoutMs), now;
        session << "PRAGMA foreign_keys = ON", now;
    }
};

void RegisterConnector()
{
    static std::once_flag once;
    std::call_once(once, [] { Poco::Data::SQLite::Connector::registerConnector(); });
}

Poco::Logger& Log()
{
    return Poco::Logger::get("verifyd.database");
}

bool AgentExists(Session& session, const std::string& id)
{
    int count = 0;
    session << "SELECT COUNT(*) FROM agents WHERE id = ?", bind(id), into(count), now;
    return count > 0;
}

int ContactCount(Session& session, const std::string& agent, const std::string* contact)
{
    int count = 0;
    if (contact == nullptr) {
        session << "SELECT COUNT(*) FROM contacts WHERE agent_id = ?", bind(agent), into(count),
            now;
    } else {
        session << "SELECT COUNT(*) FROM contacts WHERE agent_id = ? AND contact = ?",
            bind(agent), bind(*contact), into(count), now;
    }
    return count;
}

std::vector<std::string> Contacts(Session& session, const std::string& agent)
{
    std::vector<std::string> contacts;
    session << "SELECT contact FROM contacts WHERE agent_id = ? ORDER BY id", bind(agent),
        into(contacts), now;
    return contacts;
}

/// Runs `body` on a pooled connection and turns any SQLite failure into
/// StoreResult::Failed with a log line naming the operation.
template <typename Body>
StoreResult Guarded(Poco::Data::SessionPool& pool, const char* operation, Body&& body)
{
    try {
        Session session = pool.get();
        return body(session);
    } catch (const Poco::Exception& e) {
        Log().error("database: %s failed: %s", std::string(operation), e.displayText());
        return StoreResult::Failed;
    }
}

} // namespace

std::unique_ptr<Database> Database::Open(const std::string& path, int connections,
                                         std::string& error)
{
    RegisterConnector();
    try {
        auto pool = std::make_unique<SqlitePool>(path, connections);
        Session session = pool->get();
        std::string journal;
        session << "PRAGMA journal_mode = WAL", into(journal), now;
        if (journal != "wal") {
            error = path + ": cannot switch the database to WAL mode (got " + journal + ")";
            return nullptr;
        }
        if (!MigrateSchema(session, error)) {
            error = path + ": " + error;
            return nullptr;
        }
        return std::unique_ptr<Database>(new Database(std::move(pool)));
    } catch (const Poco::Exception& e) {
        error = path + ": cannot open the database: " + e.displayText();
        return nullptr;
    }
}

Database::Database(std::unique_ptr<Poco::Data::SessionPool> sessions) : pool(std::move(sessions))
{
}

Database::~Database()
{
    try {
        pool->shutdown();
    } catch (const Poco::Exception&) {
        // Closing connections at exit: nothing is left to save.
    }
}

StoreResult Database::AddAgent(const std::string& id, const std::string& tokenHash)
{
    return Guarded(*pool, "add agent", [&](Session& session) {
        SqlTransaction transaction(session, Mode::Write);
        if (AgentExists(session, id)) {
            return StoreResult::Duplicate;
        }
        const Poco::Int64 created = std::time(nullptr);
        session << "INSERT INTO agents (id, token_sha256, created_at) VALUES (?, ?, ?)",
            bind(id), bind(tokenHash), bind(created), now;
        transaction.Commit();
        return StoreResult::Ok;
    });
}

StoreResult Database::RemoveAgent(const std::string& id)
{
    return Guarded(*pool, "remove agent", [&](Session& session) {
        SqlTransaction transaction(session, Mode::Write);
        if (!AgentExists(session, id)) {
            return StoreResult::NotFound;
        }
        session << "DELETE FROM contacts WHERE agent_id = ?", bind(id), now;
        session << "DELETE FROM agents WHERE id = ?", bind(id), now;
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

StoreResult Database::FindAgent(const std::string& id, AgentRecord& record)
{
    return Guarded(*pool, "find agent", [&](Session& session) {
        SqlTransaction snapshot(session, Mode::Read);
        std::vector<std::string> hashes;
        session << "SELECT token_sha256 FROM agents WHERE id = ?", bind(id), into(hashes), now;
        if (hashes.empty()) {
            return StoreResult::NotFound;
        }
        record.tokenHash = hashes.front();
        record.contacts = Contacts(session, id);
        snapshot.Commit();
        return StoreResult::Ok;
    });
}

StoreResult Database::AddContact(const std::string& agent, const std::string& contact)
{
    return Guarded(*pool, "add contact", [&](Session& session) {
        SqlTransaction transaction(session, Mode::Write);
        if (!AgentExists(session, agent)) {
            return StoreResult::NotFound;
        }
        if (ContactCount(session, agent, &contact) > 0) {
            return StoreResult::Duplicate;
        }
        if (ContactCount(session, agent, nullptr) >= kMaxContactsPerAgent) {
            return StoreResult::Full;
        }
        const Poco::Int64 created = std::time(nullptr);
        session << "INSERT INTO contacts (agent_id, contact, created_at) VALUES (?, ?, ?)",
            bind(agent), bind(contact), bind(created), now;
        transaction.Commit();
        return StoreResult::Ok;
    });
}

StoreResult Database::RemoveContact(const std::string& agent, const std::string& contact)
{
    return Guarded(*pool, "remove contact", [&](Session& session) {
        SqlTransaction transaction(session, Mode::Write);
        if (ContactCount(session, agent, &contact) == 0) {
            return StoreResult::NotFound;
        }
        session << "DELETE FROM contacts WHERE agent_id = ? AND contact = ?", bind(agent),
            bind(contact), now;
        transaction.Commit();
        return StoreResult::Ok;
    });
}

StoreResult Database::ListContacts(const std::string& agent, std::vector<std::string>& contacts)
{
    return Guarded(*pool, "list contacts", [&](Session& session) {
        SqlTransaction snapshot(session, Mode::Read);
        if (!AgentExists(session, agent)) {
            return StoreResult::NotFound;
        }
        contacts = Contacts(session, agent);
        snapshot.Commit();
        return StoreResult::Ok;
    });
}

std::string Database::CheckIntegrity()
{
    std::vector<std::string> findings;
    const StoreResult result = Guarded(*pool, "integrity check", [&](Session& session) {
        session << "PRAGMA integrity_check", into(findings), now;
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
