#pragma once

#include <vector>

#include "Payload.h"
#include "SDK/LocklessQueue.h"
#include "Shape.h"

namespace queue_bench {

/// SDK::LocklessQueue through its bulk operations, with the vectors reused
/// the way a task reuses its batch: one prepared offer per bulk size, and a
/// result vector cleared (keeping its capacity) before each dequeue.
template <bool SingleSides>
class LocklessQueueAdapter {
public:
    LocklessQueueAdapter() : queue(kCapacity, SingleSides, SingleSides, false) {}

    class Worker {
    public:
        explicit Worker(LocklessQueueAdapter& owner) : queue(owner.queue)
        {
            Payload payload;
            for (unsigned int n = 0; n <= kMaxBulk; ++n) {
                offers.emplace_back(payload.items, payload.items + n);
            }
            taken.reserve(kMaxBulk);
        }
        size_t Push(size_t n) { return static_cast<size_t>(queue.EnqueueBulk(offers[n], static_cast<int>(n))); }
        size_t Pop(size_t max)
        {
            taken.clear();
            return static_cast<size_t>(queue.DequeueBulk(taken, static_cast<int>(max)));
        }

    private:
        SDK::LocklessQueue<void*>& queue;
        std::vector<std::vector<void*>> offers;
        std::vector<void*> taken;
    };

private:
    SDK::LocklessQueue<void*> queue;
};

} // namespace queue_bench
