#include "TestSupport/Sandbox.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace TestSupport {

namespace {

// Whether the topmost mount at `mountPoint` is one that sandbox-run made (its
// tmpfs and overlays carry the name "brackmoor-sandbox").
bool MountedBySandbox(const std::string& mountPoint)
{
    std::ifstream mountInfo("/proc/self/mountinfo");
    bool bySandbox = false;
    for (std::string line; std::getline(mountInfo, line);) {
        std::istringstream fields(line);
        std::string id, parent, device, root, point;
        if (fields >> id >> parent >> device >> root >> point && point == mountPoint) {
            // Later entries are mounted on top of earlier ones.
            const std::string::size_type separator = line.find(" - ");
            bySandbox = separator != std::string::npos &&
                        line.find("brackmoor-sandbox", separator) != std::string::npos;
        }
    }
    return bySandbox;
}

bool LeadsTo(const char* link, const char* target)
{
    std::error_code error;
    return std::filesystem::canonical(link, error) == target && !error;
}

} // namespace

bool InsideSandbox()
{
    const char* flag = std::getenv("BRACKMOOR_IN_SANDBOX");
    return flag != nullptr && std::string(flag) == "1" && MountedBySandbox("/etc") && MountedBySandbox("/run") &&
           MountedBySandbox("/usr/lib") && MountedBySandbox("/usr/lib64") && LeadsTo("/lib", "/usr/lib") &&
           LeadsTo("/lib64", "/usr/lib64");
}

int RunSandboxedTests(int argc, char** argv)
{
    if (!InsideSandbox()) {
        std::fputs("not inside tests/sandbox/sandbox-run: skipping (this suite changes system paths "
                   "or binds the agent's abstract socket name)\n",
                   stderr);
        return 77;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

} // namespace TestSupport
