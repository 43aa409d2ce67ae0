#pragma once

#include <cstdint>

#include "SDK/LocklessQueue.h"

namespace queue_test {

/// A LocklessQueue whose counters can be moved before first use, so a test
/// can run the ring across the 2^32 wrap of its counters without pushing four
/// billion elements first.
template <typename T>
class StartAtQueue : public SDK::LocklessQueue<T> {
public:
    using SDK::LocklessQueue<T>::LocklessQueue;

    /// Only valid while the queue is empty and no other thread uses it.
    void StartAt(uint32_t counter) { this->ResetCounters(counter); }
};

} // namespace queue_test
