#include <cstdio>
#include <fstream>
#include <map>
#include <mutex>
#include <regex>
#include <thread>

#include <Poco/File.h>
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

std::string CodeRequest(const std::string& agent, const std::string& token)
{
    return "POST /tfa_code?agent_id=" + agent + " HTTP/1.1\r\nConnection: close\r\nX-Auth-Token: " +
           token + "\r\nContent-Length: 16\r\n\r\n{\"random_num\":7}";
}

/// Two instances of the program on one new database, each with its own port,
/// outbox and log, 127.0.0.1 (nginx) as their trusted proxy and two failed
/// authentications a minute per address; the agent "web-01" with two contacts.
class TwoInstances : public ::testing::Test {
protected:
    void SetUp() override
    {
        const std::string url = NewPostgresDatabase();
        ASSERT_TRUE(certificates.Ok() && !url.empty());
        for (const int i : {0, 1}) {
            ports[i] = FreeLoopbackPort();
            const std::string n = std::to_string(i);
            configs[i] = dir.Write("v" + n + ".ini",
                                   "[server]\nport = " + std::to_string(ports[i]) +
                                       "\ntrusted_proxies = 127.0.0.1\n[tls]\ncertificate = "
                                       "server.pem\nprivate_key = server.key\n[database]\nurl = " +
                                       url + "\n[outbox]\ndirectory = outbox" + n + "\n[log]\n"
                                       "file = v" + n + ".log\n[limits]\nauth_failures_per_minute = 2\n");
        }
        token = AddAgent("web-01", {"+4915112345678", "ops@example.org"});
        ASSERT_FALSE(token.empty());
    }

    Outcome Admin(int instance, std::vector<std::string> args)
    {
        args.insert(args.begin(), {"--config", configs[instance]});
        return Program(args);
    }

    /// Adds the agent through one instance's configuration and its contacts
    /// through the other's; its token.
    std::string AddAgent(const std::string& id, const std::vector<std::string>& contacts)
    {
        const Outcome added = Admin(1, {"agent", "add", id});
        bool ok = added.status == 0;
        for (const std::string& contact : contacts) {
            ok = ok && Admin(0, {"contact", "add", id, contact}).status == 0;
        }
        return ok ? added.out.substr(0, 64) : "";
    }

    void Start()
    {
        for (const int i : {0, 1}) {
            servers[i] = std::make_unique<Background>(
                VERIFYD_PROGRAM, std::vector<std::string>{"--config", configs[i]});
            EXPECT_TRUE(TestSupport::WaitFor(
                [&] { return StatusOf(Send(ports[i], RawList(token))) == 200; }, 20s));
        }
    }

    std::string Send(unsigned short port, const std::string& request,
                     const std::string& from = "127.0.0.1")
    {
        return RawClient(port, context, nullptr, from).Exchange(request);
    }

    TestSupport::TempDir dir;
    TestSupport::TestCertificates certificates{dir.Path()};
    Poco::Net::Context::Ptr context = ClientContext(certificates.CaFile());
    unsigned short ports[2] = {};
    std::string configs[2];
    std::unique_ptr<Background> servers[2];
    std::string token;
};

TEST_F(TwoInstances, ShareOneStateAndTheCodeLimitAndLoseNothingWhenOneIsKilled)
{
    EXPECT_EQ(Admin(0, {"contact", "remove", "web-01", "OPS@example.org"}).status, 0);
    EXPECT_EQ(Admin(1, {"contact", "add", "web-01", "ops@example.org"}).status, 0);
    EXPECT_EQ(Admin(1, {"contact", "add", "web-01", "+49 151 12345678"}).status, 1);
    EXPECT_TRUE(std::regex_match(Admin(0, {"agent", "list"}).out,
                                 std::regex("web-01\t2\t[-0-9T:]+Z\n")));
    EXPECT_EQ(Admin(1, {"contact", "list", "web-01"}).out.rfind("+4915112345678\tsms\t", 0), 0u);
    std::map<std::string, std::string> tokens;
    for (int a = 10; a < 16; ++a) {
        const std::string agent = "web-" + std::to_string(a);
        tokens[agent] = AddAgent(agent, {"+49151000000" + std::to_string(a)});
    }
    Start();
    EXPECT_EQ(Send(ports[1], RawList(token)), Send(ports[0], RawList(token)));

    // Code requests for six agents from four clients, each agent's in turn
    // to both instances; one instance is killed half a second in.
    std::mutex lock;
    std::map<std::string, int> issued;
    std::vector<std::string> edits;
    const auto until = std::chrono::steady_clock::now() + 3s;
    std::vector<std::thread> clients;
    for (int c = 0; c < 4; ++c) {
        clients.emplace_back([&, c] {
            for (int i = c; std::chrono::steady_clock::now() < until; ++i) {
                const std::string agent = "web-" + std::to_string(10 + i % 6);
                if (StatusOf(Send(ports[i / 6 % 2], CodeRequest(agent, tokens[agent]))) == 200) {
                    std::lock_guard<std::mutex> guard(lock);
                    ++issued[agent];
                }
            }
        });
    }
    clients.emplace_back([&] { // an operator at work meanwhile
        for (int i = 100; std::chrono::steady_clock::now() < until; ++i) {
            const std::string contact = "+491510000" + std::to_string(i);
            if (Admin(1, {"contact", "add", "web-01", contact}).status == 0) {
                edits.push_back(contact);
            }
        }
    });
    std::this_thread::sleep_for(500ms);
    servers[0]->Stop(SIGKILL);
    for (std::thread& client : clients) {
        client.join();
    }
    // Three a minute across both instances, the killed one's included: had a
    // code it handed out gone uncounted, the survivor would grant one more.
    for (const auto& [agent, agentToken] : tokens) {
        int granted = issued[agent];
        int status = 0;
        while ((status = StatusOf(Send(ports[1], CodeRequest(agent, agentToken)))) == 200 &&
               granted <= 3) {
            ++granted;
        }
        EXPECT_EQ(status, 429) << agent;
        EXPECT_LE(granted, 3) << agent;
    }
    const std::string contacts = Admin(0, {"contact", "list", "web-01"}).out;
    for (const std::string& contact : edits) {
        EXPECT_NE(contacts.find(contact + "\tsms"), std::string::npos) << contact;
    }
    EXPECT_FALSE(edits.empty());
}

TEST_F(TwoInstances, BehindNginxShareTheRequestsAndThrottleEachClientApart)
{
    if (!Poco::File("/usr/sbin/nginx").exists()) {
        GTEST_SKIP() << "nginx is not installed";
    }
    std::ifstream file(VERIFYD_NGINX_CONFIG);
    std::string site((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const unsigned short port = FreeLoopbackPort();
    for (const auto& [from, to] : std::map<std::string, std::string>{
             {"listen 443", "listen 127.0.0.1:" + std::to_string(port)},
             {"127.0.0.1:8441", "127.0.0.1:" + std::to_string(ports[0])},
             {"127.0.0.1:8442", "127.0.0.1:" + std::to_string(ports[1])},
             {"/etc/opt/brackmoor/verifyd.crt", dir.File("server.pem")},
             {"/etc/opt/brackmoor/verifyd.key", dir.File("server.key")},
             {"/etc/opt/brackmoor/verifyd-ca.pem", certificates.CaFile()}}) {
        ASSERT_NE(site.find(from), std::string::npos) << from;
        site.replace(site.find(from), from.size(), to);
    }
    const std::string main =
        dir.Write("nginx.conf", "daemon off;\nmaster_process off;\npid " + dir.File("nginx.pid") +
                                    ";\nerror_log " + dir.File("nginx.log") + ";\nevents {}\n"
                                    "http {\naccess_log off;\ninclude " + dir.Write("site.conf", site) + ";\n}\n");
    Start();
    Background nginx("/usr/sbin/nginx", {"-e", dir.File("nginx.log"), "-c", main});
    ASSERT_TRUE(TestSupport::WaitFor(
        [&] { return StatusOf(Send(port, RawList(token), "127.0.0.2")) == 200; }, 20s))
        << TestSupport::ReadWholeFile(dir.File("nginx.log"));
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(StatusOf(Send(port, RawList(token + "0"), "127.0.0.3")), 401);
    }
    EXPECT_EQ(StatusOf(Send(port, RawList(token), "127.0.0.3")), 429);
    EXPECT_EQ(StatusOf(Send(port, RawList(token), "127.0.0.2")), 200);
    for (const char* log : {"v0.log", "v1.log"}) {
        EXPECT_NE(TestSupport::ReadWholeFile(dir.File(log)).find("status=401 latency_ms="),
                  std::string::npos) << log << " takes its share";
        EXPECT_NE(TestSupport::ReadWholeFile(dir.File(log)).find("client=127.0.0.3"),
                  std::string::npos) << log << " names the client nginx forwarded";
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
