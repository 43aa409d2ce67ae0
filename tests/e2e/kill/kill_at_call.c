/* Preloaded into the agent by the crash-consistency case: kills the process
 * with SIGKILL on entry to its Nth call of write, rename or unlink (any of
 * their variants), so that every step that changes a file can be cut off in
 * turn. BRACKMOOR_KILL_AT=N (from 1; 0 only counts); BRACKMOOR_CALL_COUNT
 * names a file that always holds the number of calls so far. Only the agent
 * itself is counted: the variables are removed at start, so the commands it
 * runs (the sshd restart script) do not inherit them. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static long kill_at;
static long calls;
static int count_fd = -1;
static pid_t agent;

static ssize_t (*real_write)(int, const void*, size_t);
static ssize_t (*real_pwrite)(int, const void*, size_t, off_t);

__attribute__((constructor)) static void start(void)
{
    const char* at = getenv("BRACKMOOR_KILL_AT");
    const char* count = getenv("BRACKMOOR_CALL_COUNT");
    kill_at = at ? atol(at) : 0;
    if (count) {
        count_fd = open(count, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    }
    agent = getpid();
    real_write = (ssize_t(*)(int, const void*, size_t))dlsym(RTLD_NEXT, "write");
    real_pwrite = (ssize_t(*)(int, const void*, size_t, off_t))dlsym(RTLD_NEXT, "pwrite");
    unsetenv("LD_PRELOAD");
    unsetenv("BRACKMOOR_KILL_AT");
    unsetenv("BRACKMOOR_CALL_COUNT");
}

static void step(void)
{
    if (getpid() != agent) {
        return;
    }
    const long n = __atomic_add_fetch(&calls, 1, __ATOMIC_SEQ_CST);
    if (kill_at > 0 && n == kill_at) {
        kill(agent, SIGKILL);
    }
    if (count_fd >= 0) {
        char text[32];
        const int length = snprintf(text, sizeof text, "%ld\n", n);
        real_pwrite(count_fd, text, (size_t)length, 0);
    }
}

#define NEXT(type, name, ...) ((type(*)(__VA_ARGS__))dlsym(RTLD_NEXT, name))

ssize_t write(int fd, const void* data, size_t size)
{
    step();
    return real_write(fd, data, size);
}

int rename(const char* from, const char* to)
{
    step();
    return NEXT(int, "rename", const char*, const char*)(from, to);
}

int renameat(int fromDir, const char* from, int toDir, const char* to)
{
    step();
    return NEXT(int, "renameat", int, const char*, int, const char*)(fromDir, from, toDir, to);
}

int renameat2(int fromDir, const char* from, int toDir, const char* to, unsigned int flags)
{
    step();
    return NEXT(int, "renameat2", int, const char*, int, const char*, unsigned int)(fromDir, from, toDir, to, flags);
}

int unlink(const char* path)
{
    step();
    return NEXT(int, "unlink", const char*)(path);
}

int unlinkat(int dir, const char* path, int flags)
{
    step();
    return NEXT(int, "unlinkat", int, const char*, int)(dir, path, flags);
}
