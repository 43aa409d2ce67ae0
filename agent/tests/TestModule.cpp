// A module for the agent's tests. It records every call it gets as one line
// ("<name> <event> ...") appended to the file named by the environment
// variable BRACKMOOR_TEST_MODULE_RECORD, so a test can follow a running agent
// from outside. Built in several variants (compile definitions):
//   TEST_MODULE_NAME          the module's name
//   TEST_MODULE_INIT_THROWS   Init throws
//   TEST_MODULE_FACTORY_NULL  CreateModule returns null
//   TEST_MODULE_NO_FACTORY    the library exports no CreateModule at all
// With BRACKMOOR_TEST_MODULE_HOLD set, UnInit waits until that file exists,
// so a test can signal the agent while it is shutting down; likewise Init
// with BRACKMOOR_TEST_MODULE_HOLD_INIT, while it is starting.

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>

#include "Framework/Module.h"

namespace {

const char* const kCallbackId = "10001";

void Record(const std::string& event)
{
    const char* path = std::getenv("BRACKMOOR_TEST_MODULE_RECORD");
    if (path == nullptr) {
        return;
    }
    std::string line = std::string(TEST_MODULE_NAME) + " " + event;
    for (char& c : line) {
        c = c == '\n' ? ' ' : c;
    }
    line += '\n';
    const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0) {
        (void)!write(fd, line.data(), line.size());
        close(fd);
    }
}

void WaitForRelease(const char* variable)
{
    const char* hold = std::getenv(variable);
    if (hold == nullptr) {
        return;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (access(hold, F_OK) != 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

/// Accepts every document that does not contain the word "reject".
class TestPolicy : public Framework::Policy {
public:
    using Framework::Policy::Policy;
    bool Parse(const std::string& content) override { return content.find("reject") == std::string::npos; }
    void Dispatch(Framework::Policy*) override {}
};

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
        RegisterPolicyCallback(kCallbackId, new Framework::PolicyCallback<TestModule>(this, &TestModule::MakePolicy));
        return Framework::Module::Init();
#endif
    }

    void UnInit() override
    {
        Record("uninit begin");
        WaitForRelease("BRACKMOOR_TEST_MODULE_HOLD");
        Framework::Module::UnInit();
        Record("uninit end");
    }

    Framework::Policy* MakePolicy(const std::string& feature, const std::string& content, Framework::Policy*&)
    {
        auto* policy = new TestPolicy(feature);
        if (!policy->Parse(content)) {
            Record("reject " + feature + " " + content);
            delete policy;
            return nullptr;
        }
        Record("policy " + feature + " " + content);
        return policy;
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
#else
// Something to export, so that the library is a valid shared object.
extern "C" int NotAModuleFactory()
{
    return 0;
}
#endif
