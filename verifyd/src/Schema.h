#pragma once

#include <string>

#include <Poco/Data/Session.h>

#include "SqlDialect.h"

namespace brackmoor::verifyd {

/// The schema version this program reads and writes: SQLite's user_version,
/// or the one row of the table schema_version in PostgreSQL.
constexpr int kSchemaVersion = 2;

/// Brings the database on `session` to kSchemaVersion. Every step runs in its
/// own write transaction and re-reads the version inside it (in PostgreSQL
/// under an advisory lock), so processes that open a new database at the same
/// moment (two instances, or an instance and an administration command) do
/// not both apply a step. A database written by a newer program is refused
/// rather than touched. false and `error` set on failure.
bool MigrateSchema(Poco::Data::Session& session, const SqlDialect& dialect, std::string& error);

} // namespace brackmoor::verifyd
