#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "CodeLimits.h"
#include "SqlDialect.h"

namespace brackmoor::verifyd {

class ConnectionPool;

/// The agent reads no more than this many entries of a contact list, so the
/// service never registers more for one agent.
constexpr int kMaxContactsPerAgent = 32;

/// One line of "agent list".
struct AgentSummary {
    std::string id;
    long long createdAt = 0; ///< seconds since the epoch
    int contacts = 0;
};

/// Outcome of a database operation.
enum class StoreResult {
    Ok,        ///< done
    NotFound,  ///< the agent (or the agent's contact) does not exist, or the token is wrong
    Duplicate, ///< the agent or the contact exists already
    Full,      ///< the agent already has kMaxContactsPerAgent contacts
    Limited,   ///< the agent has used up its code requests for now
    Failed,    ///< the database failed; the reason has been logged
};

/// The service's state: agents with their hashed tokens, their contacts, and
/// the code requests counted against the rate limits.
///
/// Kept in one SQLite file (WAL mode, so readers never wait for the writer),
/// or in a PostgreSQL database that several instances share. Opening migrates
/// the schema. Every operation borrows its own connection from a pool and runs
/// in its own transaction, so the object can be shared by all request threads,
/// and several processes (instances and the administration command) can use
/// the database at once. No operation throws.
class Database {
public:
    /// Opens `location`: a SQLite file path, or a postgresql:// URL (see
    /// PostgresConnectionString). Up to `connections` are pooled. nullptr and
    /// `error` set (one line) when it cannot be opened or migrated.
    static std::unique_ptr<Database> Open(const std::string& location, int connections,
                                          std::string& error);
    ~Database();

    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    /// Registers a new agent with the digest of its token.
    StoreResult AddAgent(const std::string& id, const std::string& tokenHash);

    /// Removes an agent together with its contacts and counted requests.
    StoreResult RemoveAgent(const std::string& id);

    /// All agents, ordered by id.
    StoreResult ListAgents(std::vector<AgentSummary>& agents);

    /// The contacts of agent `id` when `tokenHash` is its token's digest.
    /// NotFound for an unknown agent and for a wrong token alike, after the
    /// same work (one lookup, one constant-time comparison), so that neither
    /// answer nor timing tells whether an agent id exists.
    StoreResult Authenticate(const std::string& id, const std::string& tokenHash,
                             std::vector<std::string>& contacts);

    /// Counts a code request of `agent` at `nowMs` (milliseconds since the
    /// epoch) when `limits` admit it: Ok. Limited and `retryAfter` set when
    /// they do not. Requests of one agent are counted one after the other,
    /// across all processes sharing the database.
    StoreResult CountCodeRequest(const std::string& agent, std::int64_t nowMs,
                                 const CodeLimits& limits, std::chrono::seconds& retryAfter);

    /// Adds a contact, which the caller has normalised and validated.
    StoreResult AddContact(const std::string& agent, const std::string& contact);

    /// Removes a contact given in normalised form.
    StoreResult RemoveContact(const std::string& agent, const std::string& contact);

    /// The agent's contacts in the order registered.
    StoreResult ListContacts(const std::string& agent, std::vector<std::string>& contacts);

    /// "ok" for a sound database, otherwise the findings (or the error that
    /// stopped the check): SQLite's integrity check, or for PostgreSQL, which
    /// checks its files itself, contacts and counted requests without agent.
    std::string CheckIntegrity();

private:
    Database(std::unique_ptr<ConnectionPool> sessions, SqlDialect engine);

    std::unique_ptr<ConnectionPool> pool;
    SqlDialect dialect;
};

} // namespace brackmoor::verifyd
