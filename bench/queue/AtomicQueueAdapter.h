#pragma once

#include <cstdint>

#include <atomic_queue/atomic_queue.h>

#include "Payload.h"
#include "Shape.h"

namespace queue_bench {

/// atomic_queue::AtomicQueue (fixed size, its single-producer/consumer
/// variant for one thread per side). It has no bulk calls, so a bulk is a
/// loop of single try_push / try_pop.
template <bool SingleSides>
class AtomicQueueAdapter {
    // Element 0 is its empty marker; payloads are never null.
    using Queue = atomic_queue::AtomicQueue<uintptr_t, kRingSlots, 0, true, true, false, SingleSides>;

public:
    class Worker {
    public:
        explicit Worker(AtomicQueueAdapter& owner) : queue(owner.queue) {}
        size_t Push(size_t n)
        {
            size_t i = 0;
            while (i < n && queue.try_push(reinterpret_cast<uintptr_t>(payload.items[i]))) {
                ++i;
            }
            return i;
        }
        size_t Pop(size_t max)
        {
            size_t i = 0;
            while (i < max && queue.try_pop(taken[i])) {
                ++i;
            }
            return i;
        }

    private:
        Queue& queue;
        Payload payload;
        uintptr_t taken[kMaxBulk];
    };

private:
    Queue queue;
};

} // namespace queue_bench
