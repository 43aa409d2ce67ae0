#include <regex>

#include <gtest/gtest.h>

#include "Framework/ConfigManager.h"
#include "ProgramRunner.h"
#include "TestSupport/TestCertificates.h"
#include "VerifydHarness.h"

namespace verifyd_test {
namespace {

TEST(Program, AdministersAgentsAndContactsAndServesUntilSigterm)
{
    VerifydHarness files; // certificates, database, and the SDK's CA; its own service stays idle
    ASSERT_EQ(files.Error(), "");
    const auto admin = [&files](std::vector<std::string> args) {
        args.insert(args.begin(), {"--config", files.ConfigFile()});
        return Program(args);
    };
    const Outcome added = admin({"agent", "add", "web-07"});
    ASSERT_EQ(added.status, 0) << added.err;
    ASSERT_TRUE(std::regex_match(added.out, std::regex("[0-9a-f]{64}\n"))) << added.out;
    const std::string token = added.out.substr(0, 64);

    const struct {
        std::vector<std::string> args;
        int status;
    } cases[] = {
        {{"agent", "add", "web-07"}, 1}, // ids are unique
        {{"agent", "add", "bad id"}, 1},
        {{"contact", "add", "web-07", "+49 151 1234-5678"}, 0},
        {{"contact", "add", "web-07", "0049 (151) 12345678"}, 1}, // the same number again
        {{"contact", "add", "web-07", "Bob@Example.ORG"}, 0},
        {{"contact", "add", "web-07", "12345678"}, 1},            // no country code
        {{"contact", "add", "web-07", "+0151123456"}, 1},         // country code 0
        {{"contact", "add", "web-07", "+1234567"}, 1},            // 7 digits
        {{"contact", "add", "web-07", "+1234567890123456"}, 1},   // 16 digits
        {{"contact", "add", "web-07", "+49151abc4567"}, 1},
        {{"contact", "add", "web-07", "bob@example"}, 1},
        {{"contact", "add", "web-07", "bob@@example.org"}, 1},
        {{"contact", "add", "web-99", "+4915112345679"}, 1},      // unknown agent
        {{"contact", "remove", "web-07", "BOB@example.org"}, 0},
        {{"contact", "remove", "web-07", "bob@example.org"}, 1},
        {{"agent", "remove", "web-99"}, 1},
    };
    for (const auto& c : cases) {
        const Outcome outcome = admin(c.args);
        EXPECT_EQ(outcome.status, c.status) << c.args.back() << ": " << outcome.err;
        EXPECT_TRUE(std::regex_match(outcome.err, std::regex("brackmoor-verifyd: [^\n]+\n")))
            << c.args.back() << ": " << outcome.err;
    }
    const Outcome agents = admin({"agent", "list"});
    EXPECT_TRUE(std::regex_match(agents.out, std::regex("web-07\t1\t\\d{4}-\\d\\d-\\d\\dT[0-9:]{8}Z\n")))
        << agents.out << " must not show the token again";
    const std::string hash = AgentSideHash("+4915112345678");
    EXPECT_EQ(admin({"contact", "list", "web-07"}).out, "+4915112345678\tsms\t" + hash + "\n");

    // From here on no ASSERT: the server must always be stopped.
    const unsigned short port = FreeLoopbackPort();
    const std::string config = files.WriteConfig("serve.ini", port, "[log]\nfile = serve.log\n");
    Background server(VERIFYD_PROGRAM, {"--config", config});
    Framework::ConfigManager::GetInstance()->Set("service.address",
                                                 "localhost:" + std::to_string(port));
    Reply reply;
    EXPECT_TRUE(TestSupport::WaitFor(
        [&] {
            reply = files.Call("GET", "/tfa_phone_num", {{"agent_id", "web-07"}},
                               {{"X-Auth-Token", token}});
            return reply.status == 200;
        },
        std::chrono::seconds(20)));
    EXPECT_EQ(reply.json["comm_list"][0].asString(), hash) << reply.body;
    const Outcome second = Program({"--config", config, "serve"});
    EXPECT_EQ(second.status, 2);
    EXPECT_NE(second.err.find("cannot listen on 127.0.0.1:" + std::to_string(port)),
              std::string::npos)
        << second.err;

    EXPECT_EQ(server.Stop(SIGTERM), 0);
    const std::string log = TestSupport::ReadWholeFile(files.Dir().File("serve.log"));
    EXPECT_NE(log.find("path=/tfa_phone_num status=200"), std::string::npos) << log;
}

TEST(Program, UsageConfigurationAndStartErrorsExitWith2AndOneLineAtOnce)
{
    TestSupport::TempDir dir;
    TestSupport::TestCertificates mine(dir.Path());
    TestSupport::TestCertificates other(dir.Path(), "other-");
    ASSERT_TRUE(mine.Ok() && other.Ok());
    const auto config = [&dir](const std::string& name, const std::string& key,
                               const std::string& database) {
        return dir.Write(name, "[server]\nport = 0\n[tls]\ncertificate = server.pem\n"
                               "private_key = " + key + "\n[database]\n" + database +
                                   "\n[outbox]\ndirectory = outbox\n");
    };
    const std::string bad = dir.Write("bad.ini", "[server]\nprot = 1\n");
    const std::string foreignKey = config("key.ini", "other-server.key", "path = v.db");
    const std::string noFolder = config("folder.ini", "server.key", "path = absent/v.db");
    const std::string noServer =
        config("pg.ini", "server.key", "url = postgresql://verifyd@127.0.0.1:1/verifyd");
    const std::vector<std::vector<std::string>> cases = {
        {"--config", bad, "agent", "list"},
        {"--config", dir.File("absent.ini"), "agent", "list"},
        {"--config", bad, "agent", "add"},
        {"--config", bad, "frobnicate"},
        {"--no-such-option"},
        {"--config", foreignKey, "serve"},
        {"--config", noFolder, "serve"},
        {"--config", noFolder, "agent", "list"},
        {"--config", noServer, "serve"},
        {"--config", noServer, "agent", "list"},
    };
    for (const auto& args : cases) {
        const auto start = std::chrono::steady_clock::now();
        const Outcome outcome = Program(args);
        EXPECT_EQ(outcome.status, 2) << args[1] << " " << args.back() << ": " << outcome.err;
        EXPECT_TRUE(std::regex_match(outcome.err, std::regex("brackmoor-verifyd: [^\n]+\n")))
            << outcome.err;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << args[1];
    }
}

} // namespace
} // namespace verifyd_test
