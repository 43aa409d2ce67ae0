#pragma once

#include <deque>
#include <mutex>

#include "Payload.h"
#include "Shape.h"

namespace queue_bench {

/// The baseline: a std::deque under one std::mutex, one lock per bulk.
class MutexDequeAdapter {
public:
    class Worker {
    public:
        explicit Worker(MutexDequeAdapter& parent) : owner(parent) {}
        size_t Push(size_t n)
        {
            std::lock_guard<std::mutex> lock(owner.mutex);
            const size_t room = kCapacity - owner.queue.size();
            const size_t count = n < room ? n : room;
            owner.queue.insert(owner.queue.end(), payload.items, payload.items + count);
            return count;
        }
        size_t Pop(size_t max)
        {
            std::lock_guard<std::mutex> lock(owner.mutex);
            const size_t count = max < owner.queue.size() ? max : owner.queue.size();
            for (size_t i = 0; i < count; ++i) {
                taken[i] = owner.queue.front();
                owner.queue.pop_front();
            }
            return count;
        }

    private:
        MutexDequeAdapter& owner;
        Payload payload;
        void* taken[kMaxBulk];
    };

private:
    std::mutex mutex;
    std::deque<void*> queue;
};

} // namespace queue_bench
