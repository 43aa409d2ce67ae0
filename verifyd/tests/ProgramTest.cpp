#include <signal.h>

#include <regex>

#include <Poco/Net/ServerSocket.h>
#include <Poco/Pipe.h>
#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <Poco/StreamCopier.h>
#include <gtest/gtest.h>

#include "Framework/ConfigManager.h"
#include "TestSupport/WaitFor.h"
#include "VerifydHarness.h"

namespace verifyd_test {
namespace {

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

/// Runs the installed program's binary with `args` and collects its output.
Outcome Program(const std::vector<std::string>& args)
{
    Poco::Pipe out;
    Poco::Pipe err;
    Poco::ProcessHandle child = Poco::Process::launch(VERIFYD_PROGRAM, args, nullptr, &out, &err);
    Outcome outcome;
    Poco::PipeInputStream outStream(out);
    Poco::PipeInputStream errStream(err);
    Poco::StreamCopier::copyToString(outStream, outcome.out);
    Poco::StreamCopier::copyToString(errStream, outcome.err);
    outcome.status = child.wait();
    return outcome;
}

/// A loopback port that nothing listens on (it was free a moment ago).
unsigned short FreeLoopbackPort()
{
    return Poco::Net::ServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0)).address().port();
}

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
        EXPECT_NE(outcome.err, "") << c.args.back();
    }
    const Outcome agents = admin({"agent", "list"});
    EXPECT_TRUE(std::regex_match(agents.out, std::regex("web-07\t1\t\\d{4}-\\d\\d-\\d\\dT[0-9:]{8}Z\n")))
        << agents.out << " must not show the token again";
    const std::string hash = AgentSideHash("+4915112345678");
    EXPECT_EQ(admin({"contact", "list", "web-07"}).out, "+4915112345678\tsms\t" + hash + "\n");

    // From here on no ASSERT: the server must always be stopped.
    const unsigned short port = FreeLoopbackPort();
    const std::string config = files.WriteConfig("serve.ini", port, "[log]\nfile = serve.log\n");
    Poco::ProcessHandle server = Poco::Process::launch(VERIFYD_PROGRAM, {"--config", config});
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

    ::kill(server.id(), SIGTERM);
    int status = -1;
    EXPECT_TRUE(TestSupport::WaitFor([&] { return (status = server.tryWait()) != -1; },
                                     std::chrono::seconds(20)));
    if (status == -1) {
        ::kill(server.id(), SIGKILL);
        server.wait();
    }
    EXPECT_EQ(status, 0);
    const std::string log = TestSupport::ReadWholeFile(files.Dir().File("serve.log"));
    EXPECT_NE(log.find("path=/tfa_phone_num status=200"), std::string::npos) << log;
}

TEST(Program, UsageAndConfigurationErrorsExitWith2AndOneLine)
{
    TestSupport::TempDir dir;
    const std::string bad = dir.Write("bad.ini", "[server]\nprot = 1\n");
    const std::vector<std::vector<std::string>> cases = {
        {"--config", bad, "agent", "list"},
        {"--config", dir.File("absent.ini"), "agent", "list"},
        {"--config", bad, "agent", "add"},
        {"--config", bad, "frobnicate"},
        {"--no-such-option"},
    };
    for (const auto& args : cases) {
        const Outcome outcome = Program(args);
        EXPECT_EQ(outcome.status, 2) << args.back() << ": " << outcome.err;
        EXPECT_TRUE(std::regex_match(outcome.err, std::regex("brackmoor-verifyd: [^\n]+\n")))
            << outcome.err;
    }
}

} // namespace
} // namespace verifyd_test
