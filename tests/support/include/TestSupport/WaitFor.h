#pragma once

#include <chrono>
#include <thread>

namespace TestSupport {

/// Polls `predicate` until it holds or `timeout` passes; true when it held.
/// Tests wait for effects this way instead of sleeping a guessed time.
template <typename Predicate>
bool WaitFor(Predicate predicate, std::chrono::milliseconds timeout,
             std::chrono::milliseconds interval = std::chrono::milliseconds(5))
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (; !predicate(); std::this_thread::sleep_for(interval)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
    }
    return true;
}

} // namespace TestSupport
