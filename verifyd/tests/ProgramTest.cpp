#include <regex>

#include <gtest/gtest.h>

#include "ProgramRunner.h"
#include "VerifydHarness.h"

namespace verifyd_test {
namespace {

/// The binary on the fixture's files; the in-process service only holds its
/// port. Serving is shown by the two instances behind nginx (PostgresTest).
using TheProgram = ServiceTest;

TEST_F(TheProgram, AdministersAgentsAndContactsAndEndsEveryRunWithItsStatusAndOneLineAtOnce)
{
    TestSupport::TestCertificates other(dir.Path(), "other-");
    ASSERT_TRUE(other.Ok());
    const auto config = [this](const std::string& name, const std::string& key, const std::string& database) {
        return dir.Write(name, "[server]\nport = 0\n[tls]\ncertificate = server.pem\nprivate_key = " + key +
                               "\n[database]\n" + database + "\n[outbox]\ndirectory = outbox\n");
    };
    const std::string ini = dir.File("verifyd.ini");
    const std::string bad = dir.Write("bad.ini", "[server]\nprot = 1\n");
    const std::string foreignKey = config("key.ini", "other-server.key", "path = v.db");
    const std::string noFolder = config("folder.ini", "server.key", "path = absent/v.db");
    const std::string noServer = config("pg.ini", "server.key", "url = postgresql://verifyd@127.0.0.1:1/verifyd");
    const Outcome added = Program({"--config", ini, "agent", "add", "web-07"});
    ASSERT_EQ(added.status, 0) << added.err;
    ASSERT_TRUE(std::regex_match(added.out, std::regex("[0-9a-f]{64}\n"))) << added.out;

    const struct {
        std::vector<std::string> args;
        int status;
    } cases[] = {
        {{"--config", ini, "agent", "add", "web-07"}, 1}, // ids are unique
        {{"--config", ini, "agent", "add", "bad id"}, 1},
        {{"--config", ini, "contact", "add", "web-07", "+49 151 1234-5678"}, 0},
        {{"--config", ini, "contact", "add", "web-07", "0049 (151) 12345678"}, 1}, // the same number again
        {{"--config", ini, "contact", "add", "web-07", "Bob@Example.ORG"}, 0},
        {{"--config", ini, "contact", "add", "web-07", "12345678"}, 1},            // no country code
        {{"--config", ini, "contact", "add", "web-07", "+0151123456"}, 1},         // country code 0
        {{"--config", ini, "contact", "add", "web-07", "+1234567"}, 1},            // 7 digits
        {{"--config", ini, "contact", "add", "web-07", "+1234567890123456"}, 1},   // 16 digits
        {{"--config", ini, "contact", "add", "web-07", "+49151abc4567"}, 1},
        {{"--config", ini, "contact", "add", "web-07", "bob@example"}, 1},
        {{"--config", ini, "contact", "add", "web-07", "bob@@example.org"}, 1},
        {{"--config", ini, "contact", "remove", "web-07", "BOB@example.org"}, 0},
        {{"--config", ini, "contact", "remove", "web-07", "bob@example.org"}, 1}, // gone: nothing to remove
        // Usage, configuration and start errors: 2.
        {{"--config", bad, "agent", "list"}, 2},
        {{"--config", ini, "frobnicate"}, 2},
        {{"--no-such-option"}, 2},
        {{"--config", foreignKey, "serve"}, 2},
        {{"--config", noFolder, "serve"}, 2},
        {{"--config", noFolder, "agent", "list"}, 2},
        {{"--config", noServer, "serve"}, 2},
        {{"--config", WriteConfig("busy.ini", Port(), ""), "serve"}, 2}, // the port is taken
    };
    for (const auto& c : cases) {
        const auto start = std::chrono::steady_clock::now();
        const Outcome outcome = Program(c.args);
        const std::string row = c.args[c.args.size() > 1 ? 1 : 0] + " " + c.args.back() + ": " + outcome.err;
        EXPECT_EQ(outcome.status, c.status) << row;
        EXPECT_TRUE(std::regex_match(outcome.err, std::regex("brackmoor-verifyd: [^\n]+\n"))) << row;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << row;
    }
    const std::regex agents("web-01\t2\t\\S+Z\nweb-07\t1\t\\d{4}-\\d\\d-\\d\\dT[0-9:]{8}Z\n");
    EXPECT_TRUE(std::regex_match(Program({"--config", ini, "agent", "list"}).out, agents)) << "never the token again";
    EXPECT_EQ(Program({"--config", ini, "contact", "list", "web-07"}).out,
              "+4915112345678\tsms\t" + AgentSideHash("+4915112345678") + "\n");
}

} // namespace
} // namespace verifyd_test
