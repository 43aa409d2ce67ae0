// main() of the suites registered with brackmoor_gtest(... SANDBOX).
#include "TestSupport/Sandbox.h"

int main(int argc, char** argv)
{
    return TestSupport::RunSandboxedTests(argc, argv);
}
