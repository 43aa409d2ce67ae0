// Entry of the suites that bind the server's abstract name or write system
// files: they run only inside tests/sandbox/sandbox-run, which gives them
// private network and mount namespaces. Anywhere else they skip (77).

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    const char* inSandbox = std::getenv("BRACKMOOR_IN_SANDBOX");
    if (inSandbox == nullptr || std::strcmp(inSandbox, "1") != 0) {
        std::fprintf(stderr, "not inside sandbox-run: skipping (this suite binds the server's "
                             "abstract name or writes system files)\n");
        return 77;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
