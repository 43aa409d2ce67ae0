#pragma once

#include <cstdint>

#include "SDK/LocklessQueue.h"

namespace queue_test {

/// A LocklessQueue whose counters a test may move while it is empty and
/// unshared, to reach the 2^32 wrap without pushing four billion elements.
template <typename T>
struct StartAtQueue : SDK::LocklessQueue<T> {
    using SDK::LocklessQueue<T>::LocklessQueue;
    void StartAt(uint32_t counter) { this->ResetCounters(counter); }
};

} // namespace queue_test
