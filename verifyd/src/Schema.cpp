#include "Schema.h"

#include <vector>

#include <Poco/Exception.h>

#include "SqlTransaction.h"

namespace brackmoor::verifyd {
namespace {

using namespace Poco::Data::Keywords;

/// Step i takes the database from version i to version i + 1. Steps are only
/// ever appended; a released step never changes.
const std::vector<std::vector<const char*>>& Steps()
{
    static const std::vector<std::vector<const char*>> steps = {
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
    };
    return steps;
}

int UserVersion(Poco::Data::Session& session)
{
    int version = 0;
    session << "PRAGMA user_version", into(version), now;
    return version;
}

} // namespace

bool MigrateSchema(Poco::Data::Session& session, std::string& error)
{
    static_assert(kSchemaVersion >= 1, "at least the first step exists");
    try {
        for (;;) {
            SqlTransaction transaction(session, SqlTransaction::Mode::Write);
            const int version = UserVersion(session);
            if (version == kSchemaVersion) {
                return true;
            }
            if (version < 0 || version > kSchemaVersion ||
                static_cast<std::size_t>(version) >= Steps().size()) {
                error = "database schema version " + std::to_string(version) +
                        " is newer than this program's " + std::to_string(kSchemaVersion);
                return false;
            }
            for (const char* statement : Steps()[static_cast<std::size_t>(version)]) {
                session << statement, now;
            }
            session << "PRAGMA user_version = " + std::to_string(version + 1), now;
            transaction.Commit();
        }
    } catch (const Poco::Exception& e) {
        error = "database migration failed: " + e.displayText();
        return false;
    }
}

} // namespace brackmoor::verifyd
