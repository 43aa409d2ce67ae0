#include "SDK/ExecuteCmdUtils.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "brackmoor/UniqueFd.h"

extern char** environ;

namespace SDK {

using brackmoor::UniqueFd;
using Clock = std::chrono::steady_clock;

namespace {

const int kDefaultTimeoutSeconds = 120;
// Without a process descriptor the exit of the shell is noticed by polling.
const int kExitPollMillis = 20;
// Bytes read per wake-up, so that a chatty command cannot hold off the
// deadline; after the shell exited, the last read of what its children wrote.
const size_t kReadBurstBytes = 64 * 1024;
const size_t kFinalDrainBytes = 1024 * 1024;

/// posix_spawn's file actions and attributes, destroyed on every path.
struct SpawnSetup {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    bool actionsReady = false;
    bool attributesReady = false;

    ~SpawnSetup()
    {
        if (actionsReady) {
            posix_spawn_file_actions_destroy(&actions);
        }
        if (attributesReady) {
            posix_spawnattr_destroy(&attributes);
        }
    }

    /// The child: stdout and stderr to `outFd`, stdin from /dev/null, no other
    /// descriptor, a process group of its own, default signal handling.
    int Prepare(int outFd)
    {
        if (posix_spawn_file_actions_init(&actions) != 0) {
            return -1;
        }
        actionsReady = true;
        // Duplicate before opening /dev/null: `outFd` may itself be 0.
        if (posix_spawn_file_actions_adddup2(&actions, outFd, STDOUT_FILENO) != 0 ||
            posix_spawn_file_actions_adddup2(&actions, outFd, STDERR_FILENO) != 0 ||
            posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0) != 0) {
            return -1;
        }
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
        // Descriptors opened elsewhere without O_CLOEXEC must not leak into
        // the command (and keep sockets or the output pipe open).
        if (posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1) != 0) {
            return -1;
        }
#endif
        if (posix_spawnattr_init(&attributes) != 0) {
            return -1;
        }
        attributesReady = true;
        sigset_t none;
        sigset_t defaults;
        sigemptyset(&none);
        sigemptyset(&defaults);
        for (int sig : {SIGPIPE, SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGALRM, SIGCHLD, SIGUSR1, SIGUSR2}) {
            sigaddset(&defaults, sig);
        }
        const short flags = POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
        return posix_spawnattr_setflags(&attributes, flags) == 0 &&
                       posix_spawnattr_setpgroup(&attributes, 0) == 0 &&
                       posix_spawnattr_setsigmask(&attributes, &none) == 0 &&
                       posix_spawnattr_setsigdefault(&attributes, &defaults) == 0
                   ? 0
                   : -1;
    }
};

/// Starts /bin/sh -c `command` writing to `outFd`; 0 with `pid` set, or -1.
int SpawnShell(const std::string& command, int outFd, pid_t& pid)
{
    SpawnSetup setup;
    if (setup.Prepare(outFd) != 0) {
        return -1;
    }
    char shell[] = "sh";
    char dashC[] = "-c";
    char* argv[] = {shell, dashC, const_cast<char*>(command.c_str()), nullptr};
    const int rc = posix_spawn(&pid, "/bin/sh", &setup.actions, &setup.attributes, argv, environ);
    if (rc != 0) {
        errno = rc;
        return -1;
    }
    return 0;
}

/// A descriptor that becomes readable when `pid` exits (Linux 5.3 and
/// later); invalid on older kernels, where the caller polls instead.
int OpenProcessFd(pid_t pid)
{
#ifdef SYS_pidfd_open
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    return -1;
#endif
}

/// Reads what is available on the non-blocking `fd`, keeping the first
/// `maxOutput` bytes of all output. False once the pipe reached end of file.
bool ReadAvailable(int fd, std::string& output, size_t maxOutput, size_t limit)
{
    char buffer[4096];
    size_t taken = 0;
    while (taken < limit) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n == 0) {
            return false;
        }
        if (n < 0) {
            return errno == EINTR || errno == EAGAIN;
        }
        taken += static_cast<size_t>(n);
        const size_t room = maxOutput - std::min(maxOutput, output.size());
        output.append(buffer, std::min(room, static_cast<size_t>(n)));
    }
    return true;
}

/// True once the shell has been reaped, with its wait status in `status`.
bool Reaped(pid_t pid, int& status)
{
    pid_t rc;
    do {
        rc = ::waitpid(pid, &status, WNOHANG);
    } while (rc < 0 && errno == EINTR);
    // ECHILD: the agent ignores SIGCHLD and the kernel reaped the shell.
    if (rc < 0) {
        status = -1;
    }
    return rc != 0;
}

int ExitCode(int status)
{
    return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// Collects output until the shell exits or `deadline` passes; the exit code,
/// or -1 after killing the process group at the deadline.
int Collect(pid_t pid, int readFd, const Clock::time_point deadline, std::string& output, size_t maxOutput)
{
    UniqueFd exitFd(OpenProcessFd(pid));
    bool pipeOpen = true;
    int status = 0;
    for (;;) {
        if (Reaped(pid, status)) {
            // A background child may hold the pipe open: take what is there, then return.
            if (pipeOpen) {
                ReadAvailable(readFd, output, maxOutput, kFinalDrainBytes);
            }
            return ExitCode(status);
        }
        const auto remaining =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (remaining <= 0) {
            ::kill(-pid, SIGKILL);
            while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
            return -1;
        }
        pollfd fds[2];
        nfds_t count = 0;
        if (pipeOpen) {
            fds[count++] = {readFd, POLLIN, 0};
        }
        if (exitFd.Valid()) {
            fds[count++] = {exitFd.Get(), POLLIN, 0};
        }
        const long wait = exitFd.Valid() ? remaining : std::min<long>(remaining, kExitPollMillis);
        if (::poll(fds, count, static_cast<int>(wait)) > 0 && pipeOpen && fds[0].revents != 0) {
            pipeOpen = ReadAvailable(readFd, output, maxOutput, kReadBurstBytes);
        }
    }
}

} // namespace

int ExecuteCmdUtils::ExecuteCmd(const std::string& command, std::string& output, unsigned long maxOutput,
                                int timeoutSeconds)
{
    output.clear();
    if (timeoutSeconds <= 0) {
        timeoutSeconds = kDefaultTimeoutSeconds;
    }
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(timeoutSeconds);
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        return -1;
    }
    UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    // Only our end is non-blocking: the command writes to a blocking pipe.
    if (::fcntl(readEnd.Get(), F_SETFL, O_NONBLOCK) != 0) {
        return -1;
    }
    pid_t pid = 0;
    if (SpawnShell(command, writeEnd.Get(), pid) != 0) {
        return -1;
    }
    // From here only the child holds the write end.
    writeEnd.Reset();
    return Collect(pid, readEnd.Get(), deadline, output, maxOutput);
}

} // namespace SDK
