#pragma once

#include <string>

namespace brackmoor::verifyd {

/// Whether `location` (the configured database) names a PostgreSQL server:
/// it starts with "postgresql://" or "postgres://".
bool IsPostgresUrl(const std::string& location);

/// Turns a URL of the form
///
///   postgresql://[USER[:PASSWORD]@][HOST][:PORT]/DATABASE[?KEY=VALUE&...]
///
/// into the "key=value key=value" text that the POCO PostgreSQL connector
/// hands to libpq. The query's pairs (sslmode, connect_timeout, host=/run/...
/// for a socket folder) are passed on as they are. That text separates pairs
/// by blanks and cannot quote, so no part may contain white space, and the
/// database must be named. false and `error` set (one line, never the
/// password) otherwise.
bool PostgresConnectionString(const std::string& url, std::string& keywords, std::string& error);

} // namespace brackmoor::verifyd
