// Entry of the suites that bind the server's abstract name or write system
// files: they run only inside tests/sandbox/sandbox-run, which gives them
// private network and mount namespaces and a private copy of /etc. Anywhere
// else they skip (77) without touching anything.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace {

// The sandbox bind-mounts its copy over /etc; on the host /etc is no mount
// point of its own. Checked besides the variable, so that a stray variable
// alone can never let these suites write the machine's files.
bool EtcIsMountedPrivately()
{
    std::ifstream mounts("/proc/self/mountinfo");
    std::string line;
    while (std::getline(mounts, line)) {
        std::istringstream fields(line);
        std::string id, parent, device, root, mountPoint;
        fields >> id >> parent >> device >> root >> mountPoint;
        if (mountPoint == "/etc") {
            return true;
        }
    }
    return false;
}

} // namespace

int main(int argc, char** argv)
{
    const char* inSandbox = std::getenv("BRACKMOOR_IN_SANDBOX");
    if (inSandbox == nullptr || std::strcmp(inSandbox, "1") != 0 || !EtcIsMountedPrivately()) {
        std::fprintf(stderr, "not inside sandbox-run: skipping (this suite binds the server's "
                             "abstract name or writes system files)\n");
        return 77;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
