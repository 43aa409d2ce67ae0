#pragma once

namespace TestSupport {

/// True only inside tests/sandbox/sandbox-run: its variable is set, /etc,
/// /run, /usr/lib and /usr/lib64 are its own mounts, and /lib and /lib64 lead
/// into those overlays. Checked from the mounts themselves, so that a stray
/// variable can never let a suite write this machine's system files.
bool InsideSandbox();

/// main() of a suite that may run only in the sandbox: outside it, a line on
/// standard error and 77 (ctest's skip); inside, GoogleTest.
int RunSandboxedTests(int argc, char** argv);

} // namespace TestSupport
