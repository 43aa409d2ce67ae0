#pragma once

#include <chrono>

namespace Agent {

/// What a signal asks of the agent.
enum class AgentSignal {
    None,       ///< the wait timed out; nothing arrived
    Terminate,  ///< SIGTERM or SIGINT: shut down
    Reload,     ///< SIGHUP: re-read the policy files
};

/// Takes the agent's signals synchronously on one thread.
///
/// SIGTERM, SIGINT and SIGHUP are blocked before any module starts, so every
/// thread created later (module tasks, their helpers) inherits the mask and
/// none of them is ever interrupted by, or has to handle, these signals; the
/// main thread collects them with sigwaitinfo. A signal that arrives while
/// the agent is busy stays pending and is taken at the next wait. Programs
/// that modules start through SDK::ExecuteCmdUtils get an empty mask and
/// default dispositions back, so the mask ends with the agent's own threads.
class SignalWaiter {
public:
    /// Blocks the agent's signals in the calling thread (call it first,
    /// before any thread exists) and ignores SIGPIPE, which a closed socket
    /// in a module must not turn into the agent's death. False when the mask
    /// could not be set.
    static bool BlockAgentSignals();

    /// Waits for the next agent signal; `signalNumber` receives its number.
    static AgentSignal Wait(int& signalNumber);

    /// As Wait, but gives up after `timeout` with AgentSignal::None; a zero
    /// timeout takes a pending signal without waiting.
    static AgentSignal WaitFor(std::chrono::milliseconds timeout, int& signalNumber);
};

} // namespace Agent
