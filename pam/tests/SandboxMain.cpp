// Entry point of the PAM test binaries that need the sandbox: they bind the
// agent's abstract name, write /etc/brackmoor and mount over /dev, which is
// only acceptable in private namespaces. Outside them, skip (77).

#include "SyslogCapture.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    const char* inSandbox = std::getenv("BRACKMOOR_IN_SANDBOX");
    if (inSandbox == nullptr || std::strcmp(inSandbox, "1") != 0) {
        std::fputs("run through tests/sandbox/sandbox-run; skipping\n", stderr);
        return 77;
    }
    // Set the capture up before the first syslog() of the process.
    if (!brackmoor::pam::test::SyslogCapture::Instance().Available()) {
        std::fputs("note: cannot capture the system log here; log checks are skipped\n", stderr);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
