#pragma once

#include <tbb/concurrent_queue.h>

#include "Payload.h"
#include "Shape.h"

namespace queue_bench {

/// tbb::concurrent_bounded_queue, element by element (it has no bulk
/// calls and no single-thread variant).
class TbbAdapter {
public:
    TbbAdapter() { queue.set_capacity(kCapacity); }

    class Worker {
    public:
        explicit Worker(TbbAdapter& owner) : queue(owner.queue) {}
        size_t Push(size_t n)
        {
            size_t i = 0;
            while (i < n && queue.try_push(payload.items[i])) {
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
        tbb::concurrent_bounded_queue<void*>& queue;
        Payload payload;
        void* taken[kMaxBulk];
    };

private:
    tbb::concurrent_bounded_queue<void*> queue;
};

} // namespace queue_bench
