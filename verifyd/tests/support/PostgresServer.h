#pragma once

#include <glob.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include <Poco/File.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Process.h>

namespace verifyd_test {

/// A PostgreSQL server of Debian's package for the tests: a new cluster in a
/// temporary folder, run as the unprivileged user "postgres" on 127.0.0.1 and
/// a free port, with trust authentication (it lives in the sandbox's network
/// namespace only), stopped and removed with the object.
class PostgresServer {
public:
    /// An installed server's bin folder; "" when there is none.
    static std::string BinDir()
    {
        glob_t found{};
        std::string pgCtl;
        if (::glob("/usr/lib/postgresql/*/bin/pg_ctl", 0, nullptr, &found) == 0) {
            pgCtl = found.gl_pathv[0]; // any installed server will do
        }
        ::globfree(&found);
        return pgCtl.substr(0, pgCtl.empty() ? 0 : pgCtl.rfind('/'));
    }

    PostgresServer()
        : bin(BinDir()),
          port(Poco::Net::ServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0)).address().port())
    {
        char pattern[] = "/tmp/verifyd-pg-XXXXXX";
        folder = ::mkdtemp(pattern) ? pattern : "";
        const std::string options = "-c listen_addresses=127.0.0.1 -c port=" + std::to_string(port) +
                                    " -c unix_socket_directories=" + folder + " -c fsync=off";
        ok = !bin.empty() && !folder.empty() &&
             Poco::Process::launch("/bin/chown", {"postgres:", folder}).wait() == 0 &&
             AsPostgres("initdb", {"-D", folder + "/data", "-U", "postgres", "--auth=trust", "-N"}) &&
             AsPostgres("pg_ctl", {"-D", folder + "/data", "-l", folder + "/log", "-w", "-o",
                                   options, "start"});
    }
    ~PostgresServer()
    {
        if (!folder.empty()) {
            AsPostgres("pg_ctl", {"-D", folder + "/data", "-m", "immediate", "stop"});
            Poco::File(folder).remove(true);
        }
    }

    bool Ok() const { return ok; }

    /// A new, empty database's URL, as database.url takes it; "" on failure.
    std::string NewDatabase()
    {
        const std::string name = "verifyd_" + std::to_string(++databases);
        return AsPostgres("createdb", {"-h", "127.0.0.1", "-p", std::to_string(port), name})
                   ? "postgresql://postgres@127.0.0.1:" + std::to_string(port) + "/" + name
                   : "";
    }

private:
    bool AsPostgres(const std::string& tool, std::vector<std::string> args) const
    {
        args.insert(args.begin(), {"--reuid=postgres", "--regid=postgres", "--init-groups", "--",
                                   bin + "/" + tool});
        return Poco::Process::launch("/usr/bin/setpriv", args).wait() == 0;
    }

    std::string bin;
    std::string folder;
    unsigned short port;
    int databases = 0;
    bool ok = false;
};

} // namespace verifyd_test
