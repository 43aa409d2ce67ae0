#pragma once

#include <glob.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include <Poco/File.h>

#include "ProgramRunner.h"

namespace verifyd_test {

/// A PostgreSQL server of Debian's package for the tests: a new cluster in a
/// temporary folder, run as the unprivileged user "postgres" on 127.0.0.1 and
/// a free port, with trust authentication (it lives in the sandbox's network
/// namespace only), stopped and removed with the object.
class PostgresServer {
public:
    /// The newest installed server's bin folder; "" when there is none.
    static std::string BinDir()
    {
        glob_t found{};
        std::string newest;
        if (::glob("/usr/lib/postgresql/*/bin/pg_ctl", 0, nullptr, &found) == 0) {
            newest = found.gl_pathv[found.gl_pathc - 1]; // any installed server will do
        }
        ::globfree(&found);
        return newest.empty() ? "" : newest.substr(0, newest.size() - 7);
    }

    PostgresServer() : bin(BinDir()), port(FreeLoopbackPort())
    {
        char pattern[] = "/tmp/verifyd-pg-XXXXXX";
        folder = ::mkdtemp(pattern) ? pattern : "";
        const std::string options = "-c listen_addresses=127.0.0.1 -c port=" + std::to_string(port) +
                                    " -c unix_socket_directories=" + folder + " -c fsync=off";
        ok = !bin.empty() && !folder.empty() && Run("/bin/chown", {"postgres:", folder}) &&
             AsPostgres("initdb", {"-D", folder + "/data", "-U", "postgres", "--auth=trust", "-N"}) &&
             AsPostgres("pg_ctl", {"-D", folder + "/data", "-l", folder + "/log", "-w", "-o",
                                   options, "start"});
    }
    ~PostgresServer()
    {
        AsPostgres("pg_ctl", {"-D", folder + "/data", "-m", "immediate", "stop"});
        if (!folder.empty()) {
            Poco::File(folder).remove(true);
        }
    }

    bool Ok() const { return ok; }
    unsigned short Port() const { return port; }

    /// A new, empty database's URL, as database.url takes it; "" on failure.
    std::string NewDatabase()
    {
        const std::string name = "verifyd_" + std::to_string(++databases);
        return AsPostgres("createdb", {"-h", "127.0.0.1", "-p", std::to_string(port), "-U",
                                       "postgres", name})
                   ? "postgresql://postgres@127.0.0.1:" + std::to_string(port) + "/" + name
                   : "";
    }

private:
    static bool Run(const std::string& program, const std::vector<std::string>& args)
    {
        return Poco::Process::launch(program, args).wait() == 0;
    }
    bool AsPostgres(const std::string& tool, std::vector<std::string> args) const
    {
        args.insert(args.begin(), {"--reuid=postgres", "--regid=postgres", "--init-groups", "--",
                                   bin + "/" + tool});
        return Run("/usr/bin/setpriv", args);
    }

    std::string bin;
    std::string folder;
    unsigned short port;
    int databases = 0;
    bool ok = false;
};

} // namespace verifyd_test
