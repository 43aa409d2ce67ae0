// A module for the agent's tests, named TEST_MODULE_NAME, that appends each call it gets as a line
// "<name> <event> ..." to the file BRACKMOOR_TEST_MODULE_RECORD names, for a test to follow a running
// agent. With BRACKMOOR_TEST_MODULE_HOLD_INIT (HOLD_UNINIT) set, Init (UnInit) waits until that file
// exists, so that a test can signal the agent while it starts (stops). Variants: TEST_MODULE_INIT_THROWS,
// TEST_MODULE_FACTORY_NULL (CreateModule returns null), TEST_MODULE_NO_FACTORY.
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "Framework/Module.h"
#include "Framework/TaskPolicy.h"
#include "TestSupport/WaitFor.h"

namespace {

void Record(const std::string& event)
{
    if (const char* path = std::getenv("BRACKMOOR_TEST_MODULE_RECORD")) {
        std::ofstream(path, std::ios::app) << TEST_MODULE_NAME << ' ' << event << '\n';
    }
}

void WaitForRelease(const char* variable)
{
    if (const char* hold = std::getenv(variable)) {
        TestSupport::WaitFor([hold] { return access(hold, F_OK) == 0; }, std::chrono::seconds(60));
    }
}

class TestModule : public Framework::Module {
public:
    TestModule() : Framework::Module(TEST_MODULE_NAME) { Record("create"); }
    ~TestModule() override { Record("destroy"); }

    int Init() override
    {
        Record("init");
        WaitForRelease("BRACKMOOR_TEST_MODULE_HOLD_INIT");
#ifdef TEST_MODULE_INIT_THROWS
        throw std::runtime_error("init refused by the test");
#else
        RegisterPolicyCallback("10001", new Framework::PolicyCallback<TestModule>(this, &TestModule::MakePolicy));
        return Framework::Module::Init();
#endif
    }

    void UnInit() override
    {
        Record("uninit begin");
        WaitForRelease("BRACKMOOR_TEST_MODULE_HOLD_UNINIT");
        Framework::Module::UnInit();
        Record("uninit end");
    }

    /// Accepts every document that does not contain the word "reject".
    Framework::Policy* MakePolicy(const std::string& feature, const std::string& content, Framework::Policy*&)
    {
        const bool rejected = content.find("reject") != std::string::npos;
        Record((rejected ? "reject " : "policy ") + feature + " " + content);
        return rejected ? nullptr : new Framework::TaskPolicy(feature);
    }
};

} // namespace

#ifndef TEST_MODULE_NO_FACTORY
extern "C" Framework::Module* CreateModule()
{
#ifdef TEST_MODULE_FACTORY_NULL
    return nullptr;
#else
    return new TestModule();
#endif
}
#endif
