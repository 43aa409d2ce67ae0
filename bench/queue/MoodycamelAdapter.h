#pragma once

#include <concurrentqueue/concurrentqueue.h>

#include "Payload.h"
#include "Shape.h"

namespace queue_bench {

/// moodycamel::ConcurrentQueue with a producer and a consumer token per
/// thread (its fast path), pre-sized and used only through the try_ calls,
/// which never allocate. Its bulk enqueue is all-or-nothing. It keeps one
/// sub-queue per producer, so it orders elements per producer only.
class MoodycamelAdapter {
public:
    MoodycamelAdapter() : queue(kCapacity, 2, 0) {}

    class Worker {
    public:
        explicit Worker(MoodycamelAdapter& owner)
            : queue(owner.queue), producer(owner.queue), consumer(owner.queue) {}
        size_t Push(size_t n) { return queue.try_enqueue_bulk(producer, payload.items, n) ? n : 0; }
        size_t Pop(size_t max) { return queue.try_dequeue_bulk(consumer, taken, max); }

    private:
        moodycamel::ConcurrentQueue<void*>& queue;
        moodycamel::ProducerToken producer;
        moodycamel::ConsumerToken consumer;
        Payload payload;
        void* taken[kMaxBulk];
    };

private:
    moodycamel::ConcurrentQueue<void*> queue;
};

} // namespace queue_bench
