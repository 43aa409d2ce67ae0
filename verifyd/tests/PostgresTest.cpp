#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>

#include <gtest/gtest.h>

#include "ProgramRunner.h"
#include "RawClient.h"
#include "TestSupport/Sandbox.h"
#include "TestSupport/TempDir.h"
#include "TestSupport/TestCertificates.h"

namespace brackmoor::verifyd {
/// A new, empty database on the throw-away PostgreSQL server that pg_virtualenv starts for the run and
/// describes in PGHOST, PGPORT, PGUSER and PGPASSWORD: its URL, as database.url takes it; "" when it cannot
/// be made. The database suite (DatabaseTest.cpp) runs on these too.
std::string NewDatabase()
{
    const auto env = [](const char* name) { return std::string(std::getenv(name) ? std::getenv(name) : ""); };
    static int databases = 0;
    const std::string database = "verifyd_" + std::to_string(++databases);
    if (Poco::Process::launch("/usr/bin/createdb", {database}).wait() != 0) {
        return "";
    }
    return "postgresql://" + env("PGUSER") + ":" + env("PGPASSWORD") + "@" + env("PGHOST") + ":" + env("PGPORT") +
           "/" + database;
}
} // namespace brackmoor::verifyd

namespace verifyd_test {
namespace {

using namespace std::chrono_literals;

/// Two instances of the program on one new database, each with its own port,
/// outbox and log, 127.0.0.1 (nginx) as their trusted proxy and two failed
/// authentications a minute per address, behind nginx with the shipped site.
TEST(TwoInstances, ShareOneStateAndBehindNginxTheRequestsAndThrottleEachClientApart)
{
    TestSupport::TempDir dir;
    TestSupport::TestCertificates certificates(dir.Path());
    const std::string url = brackmoor::verifyd::NewDatabase();
    ASSERT_TRUE(certificates.Ok() && !url.empty());
    const unsigned short ports[2] = {FreeLoopbackPort(), FreeLoopbackPort()};
    std::string configs[2];
    for (const int i : {0, 1}) {
        const std::string n = std::to_string(i);
        configs[i] = dir.Write("v" + n + ".ini", "[server]\nport = " + std::to_string(ports[i]) +
            "\ntrusted_proxies = 127.0.0.1\n[tls]\ncertificate = server.pem\nprivate_key = server.key\n[database]\n"
            "url = " + url + "\n[outbox]\ndirectory = outbox" + n + "\n[log]\nfile = v" + n + ".log\n[limits]\n"
            "auth_failures_per_minute = 2\n");
    }
    // The agent through one instance's configuration, its contacts through the other's.
    const Outcome added = Program({"--config", configs[1], "agent", "add", "web-01"});
    ASSERT_EQ(added.status, 0) << added.err;
    for (const char* contact : {"+4915112345678", "ops@example.org"}) {
        ASSERT_EQ(Program({"--config", configs[0], "contact", "add", "web-01", contact}).status, 0);
    }
    const std::string token = added.out.substr(0, 64);
    const Poco::Net::Context::Ptr context = ClientContext(certificates.CaFile());
    const auto send = [&](unsigned short port, const std::string& request, const std::string& from = "127.0.0.1") {
        return RawClient(port, context, from).Exchange(request);
    };
    Background first(VERIFYD_PROGRAM, {"--config", configs[0]});
    Background second(VERIFYD_PROGRAM, {"--config", configs[1]});
    for (const unsigned short port : ports) {
        ASSERT_TRUE(TestSupport::WaitFor([&] { return StatusOf(send(port, RawList(token))) == 200; }, 20s));
    }
    // That code counts are shared too, the database suite shows on this server.
    EXPECT_EQ(send(ports[1], RawList(token)), send(ports[0], RawList(token)));

    // nginx's main configuration around the shipped site, pointed at a new
    // port, the two instances and the test's certificates.
    const unsigned short port = FreeLoopbackPort();
    std::ifstream file(VERIFYD_NGINX_CONFIG);
    std::string site((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    for (const auto& [from, to] : std::map<std::string, std::string>{
             {"listen 443", "listen 127.0.0.1:" + std::to_string(port)},
             {"127.0.0.1:8441", "127.0.0.1:" + std::to_string(ports[0])},
             {"127.0.0.1:8442", "127.0.0.1:" + std::to_string(ports[1])},
             {"/etc/opt/brackmoor/verifyd.crt", dir.File("server.pem")},
             {"/etc/opt/brackmoor/verifyd.key", dir.File("server.key")},
             {"/etc/opt/brackmoor/verifyd-ca.pem", certificates.CaFile()}}) {
        EXPECT_NE(site.find(from), std::string::npos) << from;
        site.replace(std::min(site.find(from), site.size()), from.size(), to);
    }
    const Background nginx("/usr/sbin/nginx", {"-e", dir.File("nginx.log"), "-c", dir.Write("nginx.conf",
        "daemon off;\nmaster_process off;\npid " + dir.File("nginx.pid") + ";\nerror_log " + dir.File("nginx.log") +
        ";\nevents {}\nhttp {\naccess_log off;\ninclude " + dir.Write("site.conf", site) + ";\n}\n")});
    ASSERT_TRUE(TestSupport::WaitFor([&] { return StatusOf(send(port, RawList(token), "127.0.0.2")) == 200; }, 20s))
        << TestSupport::ReadWholeFile(dir.File("nginx.log"));
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(StatusOf(send(port, RawList(token + "0"), "127.0.0.3")), 401);
    }
    EXPECT_EQ(StatusOf(send(port, RawList(token), "127.0.0.3")), 429);
    EXPECT_EQ(StatusOf(send(port, RawList(token), "127.0.0.2")), 200);
    EXPECT_EQ(first.Stop(SIGTERM), 0) << "a clean stop";
    EXPECT_EQ(second.Stop(SIGTERM), 0);
    for (const char* log : {"v0.log", "v1.log"}) {
        const std::string text = TestSupport::ReadWholeFile(dir.File(log));
        EXPECT_NE(text.find("status=401 latency_ms="), std::string::npos) << log << " takes its share";
        EXPECT_NE(text.find("client=127.0.0.3"), std::string::npos) << log << " names the client";
    }
}

} // namespace
} // namespace verifyd_test

int main(int argc, char** argv)
{
    if (std::getenv("PGHOST") == nullptr) {
        std::fputs("no PostgreSQL server: run this suite under pg_virtualenv (postgresql-common); skipping\n", stderr);
        return 77;
    }
    return TestSupport::RunSandboxedTests(argc, argv);
}
