// Load test of brackmoor-verifyd on loopback.
//
//   verifyd_load [--requests N] [--seconds S] [--clients C]
//                [--mode sdk|handshake|resumption|keepalive|all]
//                [--hold H --hold-kind idle|slow] [--postgres]
//
// Starts the service in this process (8 request threads, TLS, SQLite in a
// temporary directory), registers one agent with four contacts, and has C
// clients (8 by default) GET /tfa_phone_num until N requests have been sent
// (20000 by default) or S seconds have passed (30 by default), once per mode:
// "sdk" sends through the agent's own HTTP client, one TLS connection per
// request that resumes the previous TLS session, as the agent does;
// "handshake" opens a new connection per request with a full handshake (the
// agent's cost before it resumed sessions); "resumption" does what "sdk" does
// with a client of its own;
// "keepalive" keeps one TLS connection per client and so shows what a request
// costs the server by itself. Meanwhile a second database handle, as the
// administration command would hold, adds and removes contacts of other
// agents. Afterwards every answer must have been the expected list, every
// edit must be in the database as made, and the integrity check must pass;
// the exit status is 0 only then.
//
// --hold H keeps H connections open against the service during the whole
// run, from 127.0.0.2 and up, 20 per address (HeldConnections): idle TCP
// connections or slow TLS requests that never finish. --postgres runs the
// service on a new database of the PostgreSQL server that pg_virtualenv
// (Debian's postgresql-common) started for the run:
//   tests/sandbox/sandbox-run pg_virtualenv -t verifyd_load --postgres

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>

#include <Poco/Process.h>
#include <unistd.h>

#include "AdminCommand.h"
#include "ContactChurn.h"
#include "Framework/ConfigManager.h"
#include "HeldConnections.h"
#include "ListClients.h"
#include "SDK/HttpUtils.h"
#include "Service.h"
#include "ServiceConfig.h"
#include "TestSupport/TempDir.h"
#include "TestSupport/TestCertificates.h"

namespace {

using namespace verifyd_bench;

struct Options {
    long requests = 20000;
    int seconds = 30;
    int clients = 8;
    std::string mode = "all";
    int hold = 0;
    std::string holdKind = "idle";
    bool postgres = false;
};

bool ParseOptions(int argc, char** argv, Options& options)
{
    int i = 1;
    for (; i < argc && std::string(argv[i]) == "--postgres"; ++i) {
        options.postgres = true;
    }
    for (; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        const std::string value = argv[i + 1];
        if (name == "--requests") {
            options.requests = std::stol(value);
        } else if (name == "--seconds") {
            options.seconds = std::stoi(value);
        } else if (name == "--clients") {
            options.clients = std::stoi(value);
        } else if (name == "--mode") {
            options.mode = value;
        } else if (name == "--hold") {
            options.hold = std::stoi(value);
        } else if (name == "--hold-kind") {
            options.holdKind = value;
        } else {
            return false;
        }
    }
    return i == argc && options.requests > 0 && options.seconds > 0 && options.clients > 0 &&
           options.hold >= 0 && (options.holdKind == "idle" || options.holdKind == "slow") &&
           (options.mode == "sdk" || options.mode == "handshake" || options.mode == "resumption" ||
            options.mode == "keepalive" || options.mode == "all");
}

double Percentile(std::vector<double> values, double fraction)
{
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const auto rank = static_cast<std::size_t>(std::ceil(fraction * values.size()));
    return values[std::min(values.size(), std::max<std::size_t>(rank, 1)) - 1];
}

void Report(const char* mode, const ClientTotals& totals)
{
    const long sent = totals.requests + totals.failures;
    std::printf("%-10s requests=%ld failures=%ld seconds=%.2f rps=%.0f p50_ms=%.2f "
                "p99_ms=%.2f max_ms=%.2f\n",
                mode, sent, totals.failures, totals.elapsed.count(),
                sent / totals.elapsed.count(), Percentile(totals.latenciesMs, 0.50),
                Percentile(totals.latenciesMs, 0.99), Percentile(totals.latenciesMs, 1.0));
}

/// Registers the agent the clients ask for; its token, or "" on failure.
std::string AddBenchAgent(brackmoor::verifyd::Database& database)
{
    std::ostringstream out;
    std::ostringstream err;
    brackmoor::verifyd::AdminCommand admin(database, out, err);
    bool ok = admin.Run({"agent", "add", "bench-01"}) == 0;
    for (const char* contact : {"+4915112345678", "+4930123456789", "ops@example.org",
                                "oncall@example.org"}) {
        ok = ok && admin.Run({"contact", "add", "bench-01", contact}) == 0;
    }
    std::string token = out.str();
    token.erase(token.find_last_not_of('\n') + 1);
    return ok ? token : "";
}

/// A new database on the PostgreSQL server that pg_virtualenv describes in
/// PGHOST, PGPORT, PGUSER and PGPASSWORD, as database.url takes it; "" when
/// the variables are missing or createdb fails.
std::string NewPostgresDatabase()
{
    std::string url = "postgresql://";
    for (const char* name : {"PGUSER", ":PGPASSWORD", "@PGHOST", ":PGPORT"}) {
        const char* value = std::getenv(name[0] == 'P' ? name : name + 1);
        if (value == nullptr) {
            return "";
        }
        url += (name[0] == 'P' ? "" : std::string(1, name[0])) + value;
    }
    const std::string database = "verifyd_load_" + std::to_string(::getpid());
    return Poco::Process::launch("/usr/bin/createdb", {database}).wait() == 0 ? url + "/" + database : "";
}

int Fail(const std::string& why)
{
    std::cerr << "verifyd_load: " << why << "\n";
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        return Fail("usage: verifyd_load [--postgres] [--requests N] [--seconds S] [--clients C] "
                    "[--mode sdk|handshake|resumption|keepalive|all] [--hold H --hold-kind idle|slow]");
    }
    TestSupport::TempDir dir;
    TestSupport::TestCertificates certificates(dir.Path());
    if (!dir.Ok() || !certificates.Ok()) {
        return Fail("cannot prepare certificates: " + certificates.Error());
    }
    std::string database = "path = verifyd.db";
    if (options.postgres) {
        const std::string url = NewPostgresDatabase();
        if (url.empty()) {
            return Fail("no PostgreSQL server: run under pg_virtualenv");
        }
        database = "url = " + url;
    }
    dir.Write("verifyd.ini", "[server]\nport = 0\nthreads = 8\n"
                             "[tls]\ncertificate = server.pem\nprivate_key = server.key\n"
                             "[database]\n" + database + "\n[outbox]\ndirectory = outbox\n");
    brackmoor::verifyd::ServiceConfig config;
    std::string error;
    if (!brackmoor::verifyd::LoadServiceConfig(dir.File("verifyd.ini"), config, error)) {
        return Fail(error);
    }
    std::unique_ptr<brackmoor::verifyd::Service> service =
        brackmoor::verifyd::Service::Create(config, error);
    if (!service) {
        return Fail(error);
    }
    service->Start();
    Framework::ConfigManager::GetInstance()->Set("service.address",
                                                 "localhost:" + std::to_string(service->Port()));
    Framework::ConfigManager::GetInstance()->Set("service.ca_file", certificates.CaFile());

    const std::string token = AddBenchAgent(service->Store());
    std::map<std::string, std::string> headers;
    std::string expected;
    if (token.empty() ||
        SDK::HttpUtils::GetInstance()->Get("https://SERVICE_ADDRESS/tfa_phone_num",
                                           {{"agent_id", "bench-01"}}, {{"X-Auth-Token", token}},
                                           headers, expected, 200) != 200) {
        return Fail("the bench agent cannot be served");
    }

    ContactChurn churn(config.DatabaseLocation());
    if (!churn.Error().empty()) {
        return Fail(churn.Error());
    }
    HeldConnections held(options.holdKind == "slow" ? HeldConnections::Kind::Slow
                                                    : HeldConnections::Kind::Idle,
                         options.hold, 20, service->Port(), certificates.CaFile());
    if (options.hold > 0) {
        held.Start();
    }
    churn.Start();
    std::printf("clients=%d request_threads=%d database=%s held=%d %s; limit: %ld requests or %d s "
                "per mode\n",
                options.clients, config.threads, options.postgres ? "postgresql" : "sqlite",
                options.hold, options.holdKind.c_str(), options.requests, options.seconds);
    long failures = 0;
    for (const auto& [name, connection] :
         {std::make_pair("sdk", Connection::PerRequest),
          std::make_pair("handshake", Connection::FullHandshake),
          std::make_pair("resumption", Connection::Resumed),
          std::make_pair("keepalive", Connection::KeepAlive)}) {
        if (options.mode != "all" && options.mode != name) {
            continue;
        }
        const ClientTotals totals = RunListClients(
            options.clients, options.requests, std::chrono::seconds(options.seconds), connection,
            "bench-01", token, expected, service->Port(), certificates.CaFile());
        Report(name, totals);
        failures += totals.failures;
    }
    churn.Stop();
    held.Stop();
    if (options.hold > 0) {
        std::printf("held connections closed by the service's deadline and opened again: %ld\n",
                    held.Closed());
    }
    service->Stop();

    const std::string lost = churn.Verify();
    const std::string integrity = service->Store().CheckIntegrity();
    std::printf("admin edits=%ld failed=%ld  database: %s, integrity_check=%s\n",
                churn.Operations(), churn.Failures(),
                lost.empty() ? "every edit present" : lost.c_str(), integrity.c_str());
    const bool sound = failures == 0 && churn.Failures() == 0 && lost.empty() && integrity == "ok";
    return sound ? 0 : 1;
}
