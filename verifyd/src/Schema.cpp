#include "Schema.h"

#include <vector>

#include <Poco/Exception.h>

#include "SqlTransaction.h"

namespace brackmoor::verifyd {
namespace {

using namespace Poco::Data::Keywords;

/// One step from version i to i + 1; `postgres` is empty where both engines
/// take the same statements. Steps are only ever appended; a released step
/// never changes.
struct Step {
    std::vector<const char*> sqlite;
    std::vector<const char*> postgres;
};

const std::vector<Step>& Steps()
{
    static const std::vector<Step> steps = {
        {
            {
                "CREATE TABLE agents ("
                "  id TEXT PRIMARY KEY NOT NULL,"
                "  token_sha256 TEXT NOT NULL,"
                "  created_at INTEGER NOT NULL)",
                "CREATE TABLE contacts ("
                "  id INTEGER PRIMARY KEY,"
                "  agent_id TEXT NOT NULL REFERENCES agents(id) ON DELETE CASCADE,"
                "  contact TEXT NOT NULL,"
                "  created_at INTEGER NOT NULL,"
                "  UNIQUE (agent_id, contact))",
            },
            {
                "CREATE TABLE agents ("
                "  id TEXT PRIMARY KEY NOT NULL,"
                "  token_sha256 TEXT NOT NULL,"
                "  created_at BIGINT NOT NULL)",
                "CREATE TABLE contacts ("
                "  id BIGSERIAL PRIMARY KEY,"
                "  agent_id TEXT NOT NULL REFERENCES agents(id) ON DELETE CASCADE,"
                "  contact TEXT NOT NULL,"
                "  created_at BIGINT NOT NULL,"
                "  UNIQUE (agent_id, contact))",
            },
        },
        {
            {
                // Code requests counted against the rate limits, kept for an
                // hour; in the database so that every instance counts them.
                "CREATE TABLE code_requests ("
                "  agent_id TEXT NOT NULL REFERENCES agents(id) ON DELETE CASCADE,"
                "  requested_ms BIGINT NOT NULL)",
                "CREATE INDEX code_requests_by_agent ON code_requests (agent_id, requested_ms)",
            },
            {},
        },
    };
    return steps;
}

/// Makes the version readable and, in PostgreSQL, holds other migrating
/// processes off until this transaction ends.
void PrepareVersion(Poco::Data::Session& session, const SqlDialect& dialect)
{
    if (dialect.IsPostgres()) {
        session << "SELECT pg_advisory_xact_lock(726001)", now;
        session << "CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)", now;
    }
}

int ReadVersion(Poco::Data::Session& session, const SqlDialect& dialect)
{
    std::vector<int> versions;
    session << (dialect.IsPostgres() ? "SELECT version FROM schema_version" : "PRAGMA user_version"),
        into(versions), now;
    return versions.empty() ? 0 : versions.front();
}

void WriteVersion(Poco::Data::Session& session, const SqlDialect& dialect, int version)
{
    if (dialect.IsPostgres()) {
        session << "DELETE FROM schema_version", now;
        session << "INSERT INTO schema_version (version) VALUES (" + std::to_string(version) + ")",
            now;
    } else {
        session << "PRAGMA user_version = " + std::to_string(version), now;
    }
}

} // namespace

bool MigrateSchema(Poco::Data::Session& session, const SqlDialect& dialect, std::string& error)
{
    static_assert(kSchemaVersion >= 1, "at least the first step exists");
    try {
        for (;;) {
            SqlTransaction transaction(session, dialect, SqlTransaction::Mode::Write);
            PrepareVersion(session, dialect);
            const int version = ReadVersion(session, dialect);
            if (version == kSchemaVersion) {
                return true;
            }
            if (version < 0 || version > kSchemaVersion ||
                static_cast<std::size_t>(version) >= Steps().size()) {
                error = "database schema version " + std::to_string(version) +
                        " is newer than this program's " + std::to_string(kSchemaVersion);
                return false;
            }
            const Step& step = Steps()[static_cast<std::size_t>(version)];
            const bool own = dialect.IsPostgres() && !step.postgres.empty();
            for (const char* statement : own ? step.postgres : step.sqlite) {
                session << statement, now;
            }
            WriteVersion(session, dialect, version + 1);
            transaction.Commit();
        }
    } catch (const Poco::Exception& e) {
        error = "database migration failed: " + e.displayText();
        return false;
    }
}

} // namespace brackmoor::verifyd
