// Module loading and policy delivery in process: libraries that are not
// modules, lack CreateModule, give no module or fail Init are skipped without
// harm to the others; each policy feed reports what became of its document
// at the first delivery and at reloads. The test modules record their calls.

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>

#include "AgentTestSupport.h"
#include "ModuleHost.h"
#include "PolicyFeeder.h"
#include "TestSupport/TempDir.h"

using Agent::DeliveryResult;
using AgentTest::WriteFile;

namespace {

class ModuleHostTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.Ok());
        setenv("BRACKMOOR_TEST_MODULE_RECORD", dir.File("record").c_str(), 1);
    }
    void TearDown() override { unsetenv("BRACKMOOR_TEST_MODULE_RECORD"); }

    void Install(const std::string& variant, const std::string& fileName, unsigned int mode = 0755)
    {
        AgentTest::CopyFile(AgentTest::TestModule(variant), modules + "/" + fileName, mode);
    }
    std::string Record() const { return TestSupport::ReadWholeFile(dir.File("record")); }
    Agent::PolicyFeed Feed(const std::string& name, const std::string& module, const std::string& callback)
    {
        return {name, dir.File(name + ".json"), module, callback, "feature_" + name};
    }

    TestSupport::TempDir dir;
    const std::string modules = dir.File("modules");
};

TEST_F(ModuleHostTest, LoadsTheGoodModulesAndSkipsEveryBadLibrary)
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

TEST_F(ModuleHostTest, EachFeedReportsWhatBecameOfItsDocumentAtEachDelivery)
{
    Install("alpha", "alpha.so");
    Agent::ModuleHost host;
    ASSERT_EQ(host.LoadDirectory(modules), 1u);
    // Only the first feed can ever reach the module; the others report why not at every delivery.
    Agent::PolicyFeeder feeder({Feed("tfa", "alpha", "10001"), Feed("orphan", "nobody", "10001"),
                                Feed("wrongid", "alpha", "99"), Feed("open", "alpha", "10001")});
    WriteFile(dir.File("orphan.json"), "{}");
    WriteFile(dir.File("wrongid.json"), "{}");
    WriteFile(dir.File("open.json"), "{}", 0666);
    struct Step {
        const char* content;  ///< of tfa.json; nullptr: the file is gone
        DeliveryResult expected;
    };
    const Step steps[] = {
        {"{\"v\": 1}", DeliveryResult::Accepted},        // first delivery at start
        {"{\"v\": 1}", DeliveryResult::Unchanged},       // SIGHUP, same file
        {"{\"v\": 2}", DeliveryResult::Accepted},        // SIGHUP, changed
        {nullptr, DeliveryResult::Unreadable},           // the policy in force stays...
        {"{\"v\": 2}", DeliveryResult::Unchanged},       // ...and is still known when the file is back
        {"{\"reject\": 1}", DeliveryResult::Rejected},   // the module refuses it
        {"{\"reject\": 1}", DeliveryResult::Unchanged},  // refused once is enough
        {"{\"v\": 2}", DeliveryResult::Accepted},        // back to the good text: pushed again
    };
    for (const Step& step : steps) {
        if (step.content != nullptr) {
            WriteFile(dir.File("tfa.json"), step.content);
        } else {
            ::unlink(dir.File("tfa.json").c_str());
        }
        const bool reload = &step != steps;
        EXPECT_EQ(feeder.Deliver(host, reload),
                  (std::vector<DeliveryResult>{step.expected, DeliveryResult::NoModule,
                                               DeliveryResult::UnknownCallback, DeliveryResult::Untrusted}))
            << &step - steps;
    }
    EXPECT_EQ(Record(), "alpha create\nalpha init\nalpha policy feature_tfa {\"v\": 1}\n"
                        "alpha policy feature_tfa {\"v\": 2}\nalpha reject feature_tfa {\"reject\": 1}\n"
                        "alpha policy feature_tfa {\"v\": 2}\n");
}

} // namespace
