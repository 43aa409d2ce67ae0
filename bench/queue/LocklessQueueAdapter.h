#pragma once

#include <vector>

#include "Payload.h"
#include "SDK/LocklessQueue.h"
#include "Shape.h"

namespace queue_bench {

/// SDK::LocklessQueue through its bulk operations, with the vectors reused
/// the way a task reuses its batch: one prepared offer per bulk size, and a
/// result vector cleared (keeping its capacity) before each dequeue. Calls
/// go to the queue member itself, as a task's calls to its own queue do, so
/// the compiler knows the exact type and needs no virtual dispatch.
template <bool SingleSides>
class LocklessQueueAdapter {
public:
    LocklessQueueAdapter() : queue(kCapacity, SingleSides, SingleSides, false) {}

    class Worker {
    public:
        explicit Worker(LocklessQueueAdapter& parent) : owner(parent)
        {
            Payload payload;
            for (unsigned int n = 0; n <= kMaxBulk; ++n) {
                offers.emplace_back(payload.items, payload.items + n);
            }
            taken.reserve(kMaxBulk);
        }
        size_t Push(size_t n)
        {
            return static_cast<size_t>(owner.queue.EnqueueBulk(offers[n], static_cast<int>(n)));
        }
        size_t Pop(size_t max)
        {
            taken.clear();
            return static_cast<size_t>(owner.queue.DequeueBulk(taken, static_cast<int>(max)));
        }

    private:
        LocklessQueueAdapter& owner;
        std::vector<std::vector<void*>> offers;
        std::vector<void*> taken;
    };

private:
    SDK::LocklessQueue<void*> queue;
};

} // namespace queue_bench
