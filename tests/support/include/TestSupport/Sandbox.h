#pragma once
// Whether a suite runs inside tests/sandbox/sandbox-run, and the main() of the
// suites that may run only there: they change system paths or bind the
// agent's socket name.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace TestSupport {

// Whether the topmost mount at `mountPoint` is one that sandbox-run made (its
// tmpfs and overlays carry the name "brackmoor-sandbox").
inline bool MountedBySandbox(const std::string& mountPoint)
{
    std::ifstream mountInfo("/proc/self/mountinfo");
    bool bySandbox = false;
    for (std::string line; std::getline(mountInfo, line);) {
        std::istringstream fields(line);
        std::string id, parent, device, root, point;
        // Later entries are mounted on top of earlier ones.
        if (fields >> id >> parent >> device >> root >> point && point == mountPoint) {
            bySandbox = line.find("brackmoor-sandbox", line.find(" - ")) != std::string::npos;
        }
    }
    return bySandbox;
}

// Its variable is set, /etc, /run, /usr/lib and /usr/lib64 are its mounts and
// /lib, /lib64 lead there: a stray variable alone never lets a suite write here.
inline bool InsideSandbox()
{
    std::error_code error;
    const char* flag = std::getenv("BRACKMOOR_IN_SANDBOX");
    return flag != nullptr && std::string(flag) == "1" && MountedBySandbox("/etc") && MountedBySandbox("/run") &&
           MountedBySandbox("/usr/lib") && MountedBySandbox("/usr/lib64") &&
           std::filesystem::canonical("/lib", error) == "/usr/lib" &&
           std::filesystem::canonical("/lib64", error) == "/usr/lib64" && !error;
}


/// Outside the sandbox, a line on standard error and 77 (ctest's skip);
/// inside, GoogleTest.
inline int RunSandboxedTests(int argc, char** argv)
{
    if (!InsideSandbox()) {
        std::fputs("not inside tests/sandbox/sandbox-run: skipping (the suite changes system paths)\n", stderr);
        return 77;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

} // namespace TestSupport
