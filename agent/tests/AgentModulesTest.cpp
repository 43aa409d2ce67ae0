// Module loading and policy delivery, in process and by the agent binary with its signals.
#include "ActivationJournal.h"
#include "AgentTestSupport.h"
#include "ModuleHost.h"
#include "PolicyFeeder.h"

using Agent::DeliveryResult;
using AgentTest::Eventually;
using AgentTest::WriteFile;

namespace {

constexpr std::chrono::seconds kDeadline(20);
const char* const kUnloaded = "beta uninit begin\nbeta uninit end\nbeta destroy\n"
                              "alpha uninit begin\nalpha uninit end\nalpha destroy\n";

class AgentModulesTest : public ::testing::Test {
protected:
    void SetUp() override { setenv("BRACKMOOR_TEST_MODULE_RECORD", dir.File("record").c_str(), 1); }
    void TearDown() override
    {
        unsetenv("BRACKMOOR_TEST_MODULE_HOLD_INIT"); // a held module would stall every later test
        unsetenv("BRACKMOOR_TEST_MODULE_HOLD_UNINIT");
    }
    /// The agent's arguments, after installing modules alpha and beta and a policy feed of alpha's.
    std::vector<std::string> Args()
    {
        Install("alpha", "alpha.so");
        Install("beta", "beta.so");
        WriteFile(dir.File("agent.conf"), AgentTest::ConfigText(dir.Path(), "module_dir = " + modules, "alpha", "tfa"));
        WriteFile(dir.File("tfa.json"), "{\"content\": 1}");
        return {"--config", dir.File("agent.conf"), "--foreground"};
    }

    void Install(const std::string& variant, const std::string& fileName, unsigned int mode = 0755)
    {
        const std::string built = BRACKMOOR_TEST_MODULE_DIR "/libagent_test_module_" + variant + ".so";
        WriteFile(modules + "/" + fileName, AgentTest::ReadWholeFile(built), mode);
    }
    std::string Record() const { return AgentTest::ReadWholeFile(dir.File("record")); }
    Agent::PolicyFeed Feed(const std::string& name, const std::string& module, const std::string& callback)
    {
        return {name, dir.File(name + ".json"), module, callback, "feature_" + name};
    }

    TestSupport::TempDir dir;
    const std::string modules = dir.File("modules");
};

TEST_F(AgentModulesTest, LoadsTheGoodModulesAndSkipsEveryBadLibrary)
{
    Install("beta", "20-beta.so");
    Install("alpha", "10-alpha.so");
    Install("init_throws", "30-init-throws.so");
    Install("factory_null", "40-factory-null.so");
    Install("no_factory", "50-no-factory.so");
    Install("alpha", "60-alpha-again.so");          // a second module of the same name
    Install("gamma", "70-group-writable.so", 0775);  // others could have planted code in it
    WriteFile(modules + "/80-text.so", "not a library\n");
    WriteFile(modules + "/readme.txt", "not loaded: wrong suffix\n");

    Agent::ModuleHost host;
    EXPECT_EQ(host.LoadDirectory(modules), 2u);
    EXPECT_EQ(host.Names(), (std::vector<std::string>{"alpha", "beta"}));
    // The throwing module got its UnInit anyway; the duplicate never ran.
    EXPECT_EQ(Record(), "alpha create\nalpha init\nbeta create\nbeta init\ninit_throws create\ninit_throws init\n"
                        "init_throws uninit begin\ninit_throws uninit end\ninit_throws destroy\n"
                        "alpha create\nalpha destroy\n");

    // A directory that is missing, or that others may write, gives no module at all.
    EXPECT_EQ(Agent::ModuleHost().LoadDirectory(dir.File("absent")), 0u);
    ::chmod(modules.c_str(), 0777);
    EXPECT_EQ(Agent::ModuleHost().LoadDirectory(modules), 0u);
}

// Each feed reports what became of its document at each delivery. The journal follows the policy in
// force; a start after a kill pushes what it holds before the current policy, so that the module
// restores what the killed run left before it starts again; a clean stop forgets it.
TEST_F(AgentModulesTest, FeedsDeliverOnlyChangedDocumentsAndJournalThePolicyInForce)
{
    Install("alpha", "alpha.so");
    Agent::ModuleHost host;
    ASSERT_EQ(host.LoadDirectory(modules), 1u);
    Agent::ActivationJournal journal(dir.File("state"));
    std::string error, leftover;
    ASSERT_TRUE(journal.Open(error)) << error;
    // Only the first feed can ever reach the module; the others report why not at every delivery.
    const std::vector<Agent::PolicyFeed> feeds = {Feed("tfa", "alpha", "10001"), Feed("orphan", "nobody", "10001"),
                                                  Feed("wrongid", "alpha", "99"), Feed("open", "alpha", "10001")};
    Agent::PolicyFeeder feeder(feeds, &journal);
    WriteFile(dir.File("orphan.json"), "{}");
    WriteFile(dir.File("wrongid.json"), "{}");
    WriteFile(dir.File("open.json"), "{}", 0664);
    const std::pair<const char*, DeliveryResult> steps[] = {  // tfa.json (nullptr: gone), its result
        {"{\"v\": 1}", DeliveryResult::Accepted},         // first delivery at start
        {"{\"v\": 1}", DeliveryResult::Unchanged},        // SIGHUP, same file
        {"{\"v\": 2}", DeliveryResult::Accepted},         // SIGHUP, changed
        {nullptr, DeliveryResult::Unreadable},            // the policy in force stays...
        {"{\"v\": 2}", DeliveryResult::Unchanged},        // ...and is still known when the file is back
        {"{\"reject\": 1}", DeliveryResult::Rejected},    // the module refuses it
        {"{\"reject\": 1}", DeliveryResult::Unchanged},   // refused once is enough
        {"{\"v\": 2}", DeliveryResult::Accepted},         // back to the good text: pushed again
    };
    for (const auto& [content, expected] : steps) {
        if (content != nullptr) {
            WriteFile(dir.File("tfa.json"), content);
        } else {
            ::unlink(dir.File("tfa.json").c_str());
        }
        const bool reload = &content != &steps[0].first;  // the first delivery is the start's
        EXPECT_EQ(feeder.Deliver(host, reload),
                  (std::vector<DeliveryResult>{expected, DeliveryResult::NoModule, DeliveryResult::UnknownCallback,
                                               DeliveryResult::Untrusted}))
            << (content ? content : "gone");
    }
    ASSERT_TRUE(journal.Leftover("tfa", leftover));
    EXPECT_EQ(leftover, "{\"v\": 2}");

    WriteFile(dir.File("tfa.json"), "{\"v\": 3}");
    Agent::PolicyFeeder restarted(feeds, &journal);
    restarted.RecoverUncleanStop(host);
    restarted.Deliver(host, false);
    EXPECT_EQ(Record(), "alpha create\nalpha init\nalpha policy feature_tfa {\"v\": 1}\n"
                        "alpha policy feature_tfa {\"v\": 2}\nalpha reject feature_tfa {\"reject\": 1}\n"
                        "alpha policy feature_tfa {\"v\": 2}\nalpha policy feature_tfa {\"v\": 2}\n"
                        "alpha policy feature_tfa {\"v\": 3}\n");
    restarted.ForgetAfterCleanStop();
    EXPECT_FALSE(journal.Leftover("tfa", leftover));
}

// Signals that come while the modules are being unloaded cannot cut the stop short.
TEST_F(AgentModulesTest, AgentDeliversAtStartRefusesASecondInstanceAndStopsCompletely)
{
    setenv("BRACKMOOR_TEST_MODULE_HOLD_UNINIT", dir.File("release-uninit").c_str(), 1);
    const std::vector<std::string> args = Args();
    AgentTest::AgentProcess agent(args, dir.Path());
    ASSERT_TRUE(Eventually(dir.File("record"), "alpha policy tfa {\"content\": 1}\n")) << agent.Stderr();
    AgentTest::AgentProcess second(args, dir.Path());
    EXPECT_EQ(second.Wait(kDeadline), 1);
    EXPECT_EQ(second.Stderr(), "brackmoor-agent: another instance is running (pid " + std::to_string(agent.Pid()) +
                                   "); pid file " + dir.File("agent.pid") + "\n");

    agent.Signal(SIGTERM);
    ASSERT_TRUE(Eventually(dir.File("record"), "beta uninit begin\n"));
    agent.Signal(SIGTERM);
    agent.Signal(SIGINT);
    ASSERT_TRUE(Eventually(dir.File("log/agent.log"), "SIGTERM received during shut-down; ignored"));
    ASSERT_TRUE(Eventually(dir.File("log/agent.log"), "SIGINT received during shut-down; ignored"));
    EXPECT_EQ(agent.Wait(std::chrono::milliseconds(0)), -1) << "stopped before the modules were unloaded";
    WriteFile(dir.File("release-uninit"), "");
    EXPECT_EQ(agent.Wait(kDeadline), 0) << agent.Stderr();
    // One of each module, in reverse order of loading at the end; the second instance loaded none.
    EXPECT_EQ(Record(), "alpha create\nalpha init\nbeta create\nbeta init\nalpha policy tfa {\"content\": 1}\n" +
                            std::string(kUnloaded));
    EXPECT_NE(access(dir.File("agent.pid").c_str(), F_OK), 0) << "pid file left behind";
    EXPECT_NE(agent.Stderr().find("brackmoor-agent stopped."), std::string::npos) << agent.Stderr();
}

TEST_F(AgentModulesTest, AgentAStopWhileStartingPushesNoPolicy)
{
    setenv("BRACKMOOR_TEST_MODULE_HOLD_INIT", dir.File("release-init").c_str(), 1);
    AgentTest::AgentProcess agent(Args(), dir.Path());
    ASSERT_TRUE(Eventually(dir.File("record"), "alpha init\n")) << agent.Stderr();
    agent.Signal(SIGINT);
    WriteFile(dir.File("release-init"), "");
    EXPECT_EQ(agent.Wait(kDeadline), 0);
    EXPECT_EQ(Record(), "alpha create\nalpha init\nbeta create\nbeta init\n" + std::string(kUnloaded));
    EXPECT_TRUE(Eventually(dir.File("log/agent.log"), "SIGINT received while starting; shutting down."));
}

} // namespace
