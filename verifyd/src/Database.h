#pragma once

#include <memory>
#include <string>
#include <vector>

namespace Poco { namespace Data { class SessionPool; } }

namespace brackmoor::verifyd {

/// The agent reads no more than this many entries of a contact list, so the
/// service never registers more for one agent.
constexpr int kMaxContactsPerAgent = 32;

/// What a request needs to know about its agent, read from one snapshot.
struct AgentRecord {
    std::string tokenHash;             ///< SHA-256 hex of the agent's token
    std::vector<std::string> contacts; ///< normalised, in the order registered
};

/// One line of "agent list".
struct AgentSummary {
    std::string id;
    long long createdAt = 0; ///< seconds since the epoch
    int contacts = 0;
};

/// Outcome of a database operation.
enum class StoreResult {
    Ok,        ///< done
    NotFound,  ///< the agent (or the agent's contact) does not exist
    Duplicate, ///< the agent or the contact exists already
    Full,      ///< the agent already has kMaxContactsPerAgent contacts
    Failed,    ///< SQLite failed; the reason has been logged
};

/// The service's state in one SQLite file: agents with their hashed tokens and
/// their contacts.
///
/// Opening creates the file if needed, switches it to WAL (readers never wait
/// for the writer) and migrates the schema. Every operation borrows its own
/// connection from a pool and runs in its own transaction, so the object can
/// be shared by all request threads, and several processes (the server and the
/// administration command) can use the file at once. No operation throws.
class Database {
public:
    /// Opens `path` with up to `connections` pooled connections; nullptr and
    /// `error` set when the file cannot be opened or migrated.
    static std::unique_ptr<Database> Open(const std::string& path, int connections,
                                          std::string& error);
    ~Database();

    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    /// Registers a new agent with the digest of its token.
    StoreResult AddAgent(const std::string& id, const std::string& tokenHash);

    /// Removes an agent together with its contacts.
    StoreResult RemoveAgent(const std::string& id);

    /// All agents, ordered by id.
    StoreResult ListAgents(std::vector<AgentSummary>& agents);

    /// The token digest and contacts of `id`, consistent with each other.
    StoreResult FindAgent(const std::string& id, AgentRecord& record);

    /// Adds a contact, which the caller has normalised and validated.
    StoreResult AddContact(const std::string& agent, const std::string& contact);

    /// Removes a contact given in normalised form.
    StoreResult RemoveContact(const std::string& agent, const std::string& contact);

    /// The agent's contacts in the order registered.
    StoreResult ListContacts(const std::string& agent, std::vector<std::string>& contacts);

    /// SQLite's integrity check: "ok" for a sound file, otherwise its findings
    /// (or the error that stopped it).
    std::string CheckIntegrity();

private:
    explicit Database(std::unique_ptr<Poco::Data::SessionPool> sessions);

    std::unique_ptr<Poco::Data::SessionPool> pool;
};

} // namespace brackmoor::verifyd
