#pragma once

#include <string>

#include <Poco/Data/Session.h>

namespace brackmoor::verifyd {

/// The schema version this program reads and writes (SQLite's user_version).
constexpr int kSchemaVersion = 1;

/// Brings the database on `session` to kSchemaVersion. Every step runs in its
/// own write transaction and re-reads the version inside it, so a server and
/// an administration command that open a new database at the same moment do
/// not both apply a step. A database written by a newer program is refused
/// rather than touched. false and `error` set on failure.
bool MigrateSchema(Poco::Data::Session& session, std::string& error);

} // namespace brackmoor::verifyd
