#pragma once

#include <cstdlib>
#include <string>

#include <Poco/Process.h>

namespace verifyd_test {

/// A new, empty database on the throw-away PostgreSQL server that Debian's
/// pg_virtualenv starts for a run and describes in PGHOST, PGPORT, PGUSER and
/// PGPASSWORD: its URL, as database.url takes it; "" when there is no such
/// server or the database cannot be made.
inline std::string NewPostgresDatabase()
{
    const char* user = std::getenv("PGUSER");
    const char* password = std::getenv("PGPASSWORD");
    const char* host = std::getenv("PGHOST");
    const char* port = std::getenv("PGPORT");
    static int databases = 0;
    const std::string database = "verifyd_" + std::to_string(++databases);
    if (!user || !password || !host || !port ||
        Poco::Process::launch("/usr/bin/createdb", {database}).wait() != 0) {
        return "";
    }
    return std::string("postgresql://") + user + ":" + password + "@" + host + ":" + port + "/" +
           database;
}

} // namespace verifyd_test
