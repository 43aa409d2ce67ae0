// Policy delivery into loaded modules: what each feed's outcome is at the
// first delivery and at reloads with changed, unchanged and rejected files.

#include <gtest/gtest.h>

#include <cstdlib>

#include "AgentTestSupport.h"
#include "ModuleHost.h"
#include "PolicyFeeder.h"
#include "TestSupport/TempDir.h"

using Agent::DeliveryResult;
using AgentTest::Built;
using AgentTest::ReadLines;
using AgentTest::WriteFile;

namespace {

class PolicyFeederTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.Ok());
        record = dir.File("record");
        setenv("BRACKMOOR_TEST_MODULE_RECORD", record.c_str(), 1);
        AgentTest::CopyFile(Built::TestModule("alpha"), dir.File("modules/alpha.so"));
        ASSERT_EQ(host.LoadDirectory(dir.File("modules")), 1u);
    }
    void TearDown() override
    {
        host.UnloadAll();
        unsetenv("BRACKMOOR_TEST_MODULE_RECORD");
    }

    Agent::PolicyFeed Feed(const std::string& name, const std::string& module, const std::string& callback)
    {
        return {name, dir.File(name + ".json"), module, callback, "feature_" + name};
    }

    /// The policy lines the module recorded.
    std::vector<std::string> Delivered()
    {
        std::vector<std::string> lines;
        for (const std::string& line : ReadLines(record)) {
            if (line.rfind("alpha policy", 0) == 0 || line.rfind("alpha reject", 0) == 0) {
                lines.push_back(line);
            }
        }
        return lines;
    }

    TestSupport::TempDir dir;
    std::string record;
    Agent::ModuleHost host;
};

TEST_F(PolicyFeederTest, EachFeedReportsWhatBecameOfIt)
{
    Agent::PolicyFeeder feeder({Feed("good", "alpha", "10001"), Feed("orphan", "nobody", "10001"),
                                Feed("wrongid", "alpha", "99"), Feed("absent", "alpha", "10001")});
    WriteFile(dir.File("good.json"), "{\"v\": 1}");
    WriteFile(dir.File("orphan.json"), "{}");
    WriteFile(dir.File("wrongid.json"), "{}");

    EXPECT_EQ(feeder.Deliver(host, false),
              (std::vector<DeliveryResult>{DeliveryResult::Accepted, DeliveryResult::NoModule,
                                           DeliveryResult::UnknownCallback, DeliveryResult::Unreadable}));
    EXPECT_EQ(Delivered(), (std::vector<std::string>{"alpha policy feature_good {\"v\": 1}"}));
}

TEST_F(PolicyFeederTest, ReloadPushesOnlyChangedDocumentsAndSkipsARejectedOneRepeated)
{
    Agent::PolicyFeeder feeder({Feed("tfa", "alpha", "10001")});
    const std::string file = dir.File("tfa.json");
    struct Step {
        const char* content;
        DeliveryResult expected;
    };
    const Step steps[] = {
        {"{\"v\": 1}", DeliveryResult::Accepted},        // first delivery at start
        {"{\"v\": 1}", DeliveryResult::Unchanged},       // SIGHUP, same file
        {"{\"v\": 2}", DeliveryResult::Accepted},        // SIGHUP, changed
        {"{\"reject\": 1}", DeliveryResult::Rejected},   // the module refuses it
        {"{\"reject\": 1}", DeliveryResult::Unchanged},  // refused once is enough
        {"{\"v\": 2}", DeliveryResult::Accepted},        // back to the good text: pushed again
    };
    bool first = true;
    for (const Step& step : steps) {
        WriteFile(file, step.content);
        EXPECT_EQ(feeder.Deliver(host, !first), std::vector<DeliveryResult>{step.expected}) << step.content;
        first = false;
    }
    EXPECT_EQ(Delivered(), (std::vector<std::string>{"alpha policy feature_tfa {\"v\": 1}",
                                                     "alpha policy feature_tfa {\"v\": 2}",
                                                     "alpha reject feature_tfa {\"reject\": 1}",
                                                     "alpha policy feature_tfa {\"v\": 2}"}));
}

TEST_F(PolicyFeederTest, AFileOthersMayWriteIsNotRead)
{
    Agent::PolicyFeeder feeder({Feed("tfa", "alpha", "10001")});
    WriteFile(dir.File("tfa.json"), "{\"v\": 1}", 0666);
    EXPECT_EQ(feeder.Deliver(host, false), std::vector<DeliveryResult>{DeliveryResult::Untrusted});
    EXPECT_TRUE(Delivered().empty());
}

TEST_F(PolicyFeederTest, AFileThatBecomesUnreadableKeepsThePolicyInForce)
{
    Agent::PolicyFeeder feeder({Feed("tfa", "alpha", "10001")});
    WriteFile(dir.File("tfa.json"), "{\"v\": 1}");
    ASSERT_EQ(feeder.Deliver(host, false), std::vector<DeliveryResult>{DeliveryResult::Accepted});
    ::unlink(dir.File("tfa.json").c_str());
    EXPECT_EQ(feeder.Deliver(host, true), std::vector<DeliveryResult>{DeliveryResult::Unreadable});
    WriteFile(dir.File("tfa.json"), "{\"v\": 1}");
    EXPECT_EQ(feeder.Deliver(host, true), std::vector<DeliveryResult>{DeliveryResult::Unchanged});
    EXPECT_EQ(Delivered().size(), 1u);
}

} // namespace
