// Module loading: libraries that are not modules, lack CreateModule, give no
// module or fail Init are skipped without harm to the others; modules are
// unloaded in reverse order, each through UnInit, delete and dlclose.

#include <gtest/gtest.h>

#include <cstdlib>

#include "AgentTestSupport.h"
#include "Framework/Module.h"
#include "ModuleHost.h"
#include "TestSupport/TempDir.h"

using AgentTest::Built;
using AgentTest::CopyFile;
using AgentTest::ReadLines;

namespace {

class ModuleHostTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.Ok());
        record = dir.File("record");
        modules = dir.File("modules");
        setenv("BRACKMOOR_TEST_MODULE_RECORD", record.c_str(), 1);
    }
    void TearDown() override { unsetenv("BRACKMOOR_TEST_MODULE_RECORD"); }

    void Install(const std::string& variant, const std::string& fileName, unsigned int mode = 0755)
    {
        CopyFile(Built::TestModule(variant), modules + "/" + fileName, mode);
    }

    TestSupport::TempDir dir;
    std::string record;
    std::string modules;
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
    AgentTest::WriteFile(modules + "/80-text.so", "not a library\n", 0644);
    AgentTest::WriteFile(modules + "/readme.txt", "not loaded: wrong suffix\n", 0644);

    Agent::ModuleHost host;
    EXPECT_EQ(host.LoadDirectory(modules), 2u);
    EXPECT_EQ(host.Names(), (std::vector<std::string>{"alpha", "beta"}));
    ASSERT_NE(host.Find("alpha"), nullptr);
    EXPECT_STREQ(host.Find("alpha")->name(), "alpha");
    EXPECT_EQ(host.Find("gamma"), nullptr);

    // The throwing module got its UnInit anyway; the duplicate never ran.
    EXPECT_EQ(ReadLines(record), (std::vector<std::string>{
                                     "alpha create", "alpha init", "beta create", "beta init",
                                     "init_throws create", "init_throws init", "init_throws uninit begin",
                                     "init_throws uninit end", "init_throws destroy", "alpha create",
                                     "alpha destroy"}));
}

TEST_F(ModuleHostTest, UnloadsInReverseOrder)
{
    Install("alpha", "a.so");
    Install("beta", "b.so");
    {
        Agent::ModuleHost host;
        ASSERT_EQ(host.LoadDirectory(modules), 2u);
        ::unlink(record.c_str());
        host.UnloadAll();
        EXPECT_TRUE(host.Names().empty());
        EXPECT_EQ(host.Find("alpha"), nullptr);
    }
    EXPECT_EQ(ReadLines(record),
              (std::vector<std::string>{"beta uninit begin", "beta uninit end", "beta destroy", "alpha uninit begin",
                                        "alpha uninit end", "alpha destroy"}));
}

TEST_F(ModuleHostTest, MissingOrOpenDirectoryLoadsNothing)
{
    Agent::ModuleHost host;
    EXPECT_EQ(host.LoadDirectory(dir.File("absent")), 0u);
    Install("alpha", "a.so");
    ::chmod(modules.c_str(), 0777);
    EXPECT_EQ(host.LoadDirectory(modules), 0u);
    EXPECT_TRUE(ReadLines(record).empty());
}

} // namespace
