#include <cstdio>
#include <fstream>
#include <algorithm>
#include <map>

#include <gtest/gtest.h>

#include "PostgresDatabase.h"
#include "ProgramRunner.h"
#include "RawClient.h"
#include "TestSupport/Sandbox.h"
#include "TestSupport/TempDir.h"
#include "TestSupport/TestCertificates.h"

namespace verifyd_test {
namespace {

using namespace std::chrono_literals;

std::string CodeRequest(const std::string& token)
{
    return "POST /tfa_code?agent_id=web-01 HTTP/1.1\r\nConnection: close\r\nX-Auth-Token: " +
           token + "\r\nContent-Length: 16\r\n\r\n{\"random_num\":7}";
}

/// Writes nginx's main configuration around the shipped site, which is
/// pointed at `listen`, the two instances and the test's certificates.
std::string NginxConfig(const TestSupport::TempDir& dir, const std::string& caFile,
                        unsigned short listen, const unsigned short (&ports)[2])
{
    std::ifstream file(VERIFYD_NGINX_CONFIG);
    std::string site((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    for (const auto& [from, to] : std::map<std::string, std::string>{
             {"listen 443", "listen 127.0.0.1:" + std::to_string(listen)},
             {"127.0.0.1:8441", "127.0.0.1:" + std::to_string(ports[0])},
             {"127.0.0.1:8442", "127.0.0.1:" + std::to_string(ports[1])},
             {"/etc/opt/brackmoor/verifyd.crt", dir.File("server.pem")},
             {"/etc/opt/brackmoor/verifyd.key", dir.File("server.key")},
             {"/etc/opt/brackmoor/verifyd-ca.pem", caFile}}) {
        EXPECT_NE(site.find(from), std::string::npos) << from;
        site.replace(std::min(site.find(from), site.size()), from.size(), to);
    }
    return dir.Write("nginx.conf", "daemon off;\nmaster_process off;\npid " + dir.File("nginx.pid") +
                                       ";\nerror_log " + dir.File("nginx.log") + ";\nevents {}\n"
                                       "http {\naccess_log off;\ninclude " +
                                       dir.Write("site.conf", site) + ";\n}\n");
}

/// Two instances of the program on one new database, each with its own port,
/// outbox and log, 127.0.0.1 (nginx) as their trusted proxy and two failed
/// authentications a minute per address, behind nginx with the shipped site.
TEST(TwoInstances, ShareOneStateAndBehindNginxTheRequestsAndThrottleEachClientApart)
{
    TestSupport::TempDir dir;
    TestSupport::TestCertificates certificates(dir.Path());
    const std::string url = NewPostgresDatabase();
    ASSERT_TRUE(certificates.Ok() && !url.empty());
    const unsigned short ports[2] = {FreeLoopbackPort(), FreeLoopbackPort()};
    std::string configs[2];
    for (const int i : {0, 1}) {
        const std::string n = std::to_string(i);
        configs[i] = dir.Write("v" + n + ".ini",
                               "[server]\nport = " + std::to_string(ports[i]) +
                                   "\ntrusted_proxies = 127.0.0.1\n[tls]\ncertificate = "
                                   "server.pem\nprivate_key = server.key\n[database]\nurl = " +
                                   url + "\n[outbox]\ndirectory = outbox" + n + "\n[log]\n"
                                   "file = v" + n + ".log\n[limits]\nauth_failures_per_minute = 2\n");
    }
    // The agent through one instance's configuration, its contacts through the other's.
    const Outcome added = Program({"--config", configs[1], "agent", "add", "web-01"});
    ASSERT_EQ(added.status, 0) << added.err;
    for (const char* contact : {"+4915112345678", "ops@example.org"}) {
        ASSERT_EQ(Program({"--config", configs[0], "contact", "add", "web-01", contact}).status, 0);
    }
    const std::string token = added.out.substr(0, 64);
    const Poco::Net::Context::Ptr context = ClientContext(certificates.CaFile());
    const auto send = [&](unsigned short port, const std::string& request,
                          const std::string& from = "127.0.0.1") {
        return RawClient(port, context, nullptr, from).Exchange(request);
    };
    const Background first(VERIFYD_PROGRAM, {"--config", configs[0]});
    const Background second(VERIFYD_PROGRAM, {"--config", configs[1]});
    for (const unsigned short port : ports) {
        ASSERT_TRUE(TestSupport::WaitFor(
            [&] { return StatusOf(send(port, RawList(token))) == 200; }, 20s));
    }
    EXPECT_EQ(send(ports[1], RawList(token)), send(ports[0], RawList(token)));
    for (const int instance : {0, 1, 0}) {
        EXPECT_EQ(StatusOf(send(ports[instance], CodeRequest(token))), 200) << instance;
    }
    EXPECT_EQ(StatusOf(send(ports[1], CodeRequest(token))), 429) << "three codes a minute in all";

    const unsigned short port = FreeLoopbackPort();
    const std::string main = NginxConfig(dir, certificates.CaFile(), port, ports);
    const Background nginx("/usr/sbin/nginx", {"-e", dir.File("nginx.log"), "-c", main});
    ASSERT_TRUE(TestSupport::WaitFor(
        [&] { return StatusOf(send(port, RawList(token), "127.0.0.2")) == 200; }, 20s))
        << TestSupport::ReadWholeFile(dir.File("nginx.log"));
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(StatusOf(send(port, RawList(token + "0"), "127.0.0.3")), 401);
    }
    EXPECT_EQ(StatusOf(send(port, RawList(token), "127.0.0.3")), 429);
    EXPECT_EQ(StatusOf(send(port, RawList(token), "127.0.0.2")), 200);
    for (const char* log : {"v0.log", "v1.log"}) {
        const std::string text = TestSupport::ReadWholeFile(dir.File(log));
        EXPECT_NE(text.find("status=401 latency_ms="), std::string::npos) << log << " takes its share";
        EXPECT_NE(text.find("client=127.0.0.3"), std::string::npos) << log << " names the client";
    }
}

} // namespace
} // namespace verifyd_test

namespace brackmoor::verifyd {
// The database suite (DatabaseTest.cpp) runs on new databases of this server.
std::string NewDatabase()
{
    return verifyd_test::NewPostgresDatabase();
}
} // namespace brackmoor::verifyd

int main(int argc, char** argv)
{
    if (std::getenv("PGHOST") == nullptr) {
        std::fputs("no PostgreSQL server: run this suite under pg_virtualenv (postgresql-common); "
                   "skipping\n", stderr);
        return 77;
    }
    return TestSupport::RunSandboxedTests(argc, argv);
}
