// main() of the suites registered with brackmoor_gtest(... SANDBOX): they run
// only inside tests/sandbox/sandbox-run and skip (77) anywhere else.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

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
        // Later entries are mounted on top of earlier ones.
        if (fields >> id >> parent >> device >> root >> point && point == mountPoint) {
            bySandbox = line.find("brackmoor-sandbox", line.find(" - ")) != std::string::npos;
        }
    }
    return bySandbox;
}

// Its variable is set, /etc, /run, /usr/lib and /usr/lib64 are its mounts and
// /lib, /lib64 lead there: a stray variable alone never lets a suite write here.
bool InsideSandbox()
{
    std::error_code error;
    const char* flag = std::getenv("BRACKMOOR_IN_SANDBOX");
    return flag != nullptr && std::string(flag) == "1" && MountedBySandbox("/etc") && MountedBySandbox("/run") &&
           MountedBySandbox("/usr/lib") && MountedBySandbox("/usr/lib64") &&
           std::filesystem::canonical("/lib", error) == "/usr/lib" &&
           std::filesystem::canonical("/lib64", error) == "/usr/lib64" && !error;
}

} // namespace

int main(int argc, char** argv)
{
    if (!InsideSandbox()) {
        std::fputs("not inside tests/sandbox/sandbox-run: skipping (the suite changes system paths)\n", stderr);
        return 77;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
