#include "CommandRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "brackmoor/UniqueFd.h"

namespace brackmoor::verifyd {
namespace {

using Clock = std::chrono::steady_clock;

/// Keeps at most this much of a command's output.
constexpr std::size_t kOutputLimit = 1024;

/// posix_spawn attributes and file actions, released on every path.
class SpawnSetup {
public:
    SpawnSetup(int outputFd)
    {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, outputFd, 1);
        posix_spawn_file_actions_adddup2(&actions, outputFd, 2);
        posix_spawn_file_actions_addclosefrom_np(&actions, 3);

        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setpgroup(&attributes, 0);
        posix_spawnattr_setflags(&attributes,
                                 POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                     POSIX_SPAWN_SETPGROUP);
    }
    ~SpawnSetup()
    {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
};

/// The first line of `raw`, printable ASCII only, at most 200 characters.
std::string FirstLine(const std::string& raw)
{
    std::string line;
    for (char c : raw) {
        if (c == '\n' || line.size() >= 200) {
            break;
        }
        line.push_back(c >= ' ' && c <= '~' ? c : '?');
    }
    return line;
}

/// Reads what is available from the non-blocking `fd`; false at end of file.
bool Drain(int fd, std::string& output)
{
    char buffer[512];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n > 0) {
            const std::size_t room = kOutputLimit - std::min(kOutputLimit, output.size());
            output.append(buffer, std::min(room, static_cast<std::size_t>(n)));
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        return n < 0; // EAGAIN: more may come; 0: end of file
    }
}

/// A descriptor that becomes readable when `pid` exits. Called through
/// syscall(): the C library's wrapper is missing from some releases' headers.
int PidFd(pid_t pid)
{
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

int Reap(pid_t pid)
{
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

/// Waits until `pidfd` reports the exit or `deadline` passes, collecting output.
bool WaitForExit(int pidfd, int outputFd, Clock::time_point deadline, std::string& output)
{
    bool outputOpen = true;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd fds[2] = {{pidfd, POLLIN, 0}, {outputOpen ? outputFd : -1, POLLIN, 0}};
        const int ready = ::poll(fds, 2, static_cast<int>(left.count()) + 1);
        if (ready < 0 && errno != EINTR) {
            return false;
        }
        if (ready > 0 && fds[1].revents != 0) {
            outputOpen = Drain(outputFd, output);
        }
        if (ready > 0 && (fds[0].revents & POLLIN) != 0) {
            Drain(outputFd, output);
            return true;
        }
    }
}

} // namespace

CommandResult RunCommand(const std::vector<std::string>& argv, std::chrono::milliseconds timeout)
{
    CommandResult result;
    if (argv.empty() || argv[0].empty() || argv[0][0] != '/') {
        result.output = "the command must be an absolute path";
        return result;
    }
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        result.output = std::string("pipe: ") + std::strerror(errno);
        return result;
    }
    UniqueFd readEnd(pipeFds[0]);
    UniqueFd writeEnd(pipeFds[1]);
    ::fcntl(readEnd.Get(), F_SETFL, O_NONBLOCK);

    std::vector<char*> args;
    for (const std::string& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    char path[] = "PATH=/usr/local/bin:/usr/bin:/bin";
    char lang[] = "LANG=C.UTF-8";
    char* environment[] = {path, lang, nullptr};

    pid_t pid = -1;
    {
        SpawnSetup setup(writeEnd.Get());
        const int rc = ::posix_spawn(&pid, args[0], &setup.actions, &setup.attributes,
                                     args.data(), environment);
        if (rc != 0) {
            result.output = argv[0] + ": " + std::strerror(rc);
            return result;
        }
    }
    writeEnd.Reset();

    UniqueFd pidfd(PidFd(pid));
    const bool exited =
        pidfd.Valid() &&
        WaitForExit(pidfd.Get(), readEnd.Get(), Clock::now() + timeout, result.output);
    if (!exited) {
        ::kill(-pid, SIGKILL);
        ::kill(pid, SIGKILL);
    }
    const int status = Reap(pid);
    result.output = FirstLine(result.output);
    if (!exited) {
        result.outcome = pidfd.Valid() ? CommandResult::Outcome::TimedOut
                                       : CommandResult::Outcome::NotStarted;
        if (!pidfd.Valid()) {
            result.output = "pidfd_open failed; the command was stopped";
        }
    } else if (WIFEXITED(status)) {
        result.outcome = CommandResult::Outcome::Exited;
        result.status = WEXITSTATUS(status);
    } else {
        result.outcome = CommandResult::Outcome::Signalled;
        result.status = WTERMSIG(status);
    }
    return result;
}

} // namespace brackmoor::verifyd
