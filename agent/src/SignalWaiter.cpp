#include "SignalWaiter.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>

namespace Agent {

namespace {

sigset_t AgentSignalSet()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    return set;
}

AgentSignal Classify(int signalNumber)
{
    return signalNumber == SIGHUP ? AgentSignal::Reload : AgentSignal::Terminate;
}

} // namespace

bool SignalWaiter::BlockAgentSignals()
{
    const sigset_t set = AgentSignalSet();
    if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) {
        return false;
    }
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    return sigaction(SIGPIPE, &ignore, nullptr) == 0;
}

AgentSignal SignalWaiter::Wait(int& signalNumber)
{
    const sigset_t set = AgentSignalSet();
    for (;;) {
        siginfo_t info = {};
        const int got = sigwaitinfo(&set, &info);
        if (got > 0) {
            signalNumber = got;
            return Classify(got);
        }
        // EINTR: a signal outside the set (a debugger's, SIGCONT) interrupted the wait.
    }
}

AgentSignal SignalWaiter::WaitFor(std::chrono::milliseconds timeout, int& signalNumber)
{
    const sigset_t set = AgentSignalSet();
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        // A zero (or spent) timeout still looks once: that is how pending signals are polled.
        const auto left = std::max(std::chrono::nanoseconds(0), std::chrono::duration_cast<std::chrono::nanoseconds>(
                                                                    deadline - std::chrono::steady_clock::now()));
        struct timespec wait = {};
        wait.tv_sec = static_cast<time_t>(left.count() / 1000000000);
        wait.tv_nsec = static_cast<long>(left.count() % 1000000000);
        siginfo_t info = {};
        const int got = sigtimedwait(&set, &info, &wait);
        if (got > 0) {
            signalNumber = got;
            return Classify(got);
        }
        if (errno == EAGAIN) {
            return AgentSignal::None;
        }
        // EINTR: a signal outside the set interrupted the wait; wait out the rest.
    }
}

} // namespace Agent
