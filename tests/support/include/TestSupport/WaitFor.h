#pragma once

#include <chrono>
#include <thread>

namespace TestSupport {

/// Polls `predicate` until it holds or `timeout` passes; true when it held.
/// Tests wait for effects this way instead of sleeping a guessed time.
template <typename Predicate>
bool WaitFor(Predicate predicate, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    bool held = false;
    while (!(held = predicate()) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return held;
}

} // namespace TestSupport
