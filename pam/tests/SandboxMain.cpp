// Entry point of the PAM test binaries: they bind the agent's abstract name,
// write /etc/brackmoor and mount over /dev, which is only acceptable in the
// sandbox's private namespaces. Outside them, skip (77).

#include "PamHarness.h"
#include "TestSupport/Sandbox.h"

#include <cstdio>
#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    if (!TestSupport::InsideSandbox()) {
        std::fputs("run through tests/sandbox/sandbox-run; skipping\n", stderr);
        return 77;
    }
    // Before the process's first syslog(), which connects to /dev/log for good.
    if (!brackmoor::pam::test::CaptureSyslog()) {
        std::perror("cannot catch the system log at /dev/log");
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
