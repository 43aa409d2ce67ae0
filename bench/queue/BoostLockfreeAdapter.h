#pragma once

#include <boost/lockfree/queue.hpp>
#include <boost/lockfree/spsc_queue.hpp>

#include "Payload.h"
#include "Shape.h"

namespace queue_bench {

/// Boost.Lockfree: spsc_queue (with bulk push and pop) for one thread per
/// side, the node-based queue (single push and pop) otherwise; both of fixed
/// capacity, so neither allocates while measured.
template <bool SingleSides>
class BoostLockfreeAdapter {
    using Spsc = boost::lockfree::spsc_queue<void*, boost::lockfree::capacity<kCapacity>>;
    using Mpmc = boost::lockfree::queue<void*, boost::lockfree::capacity<kCapacity>>;
    using Queue = std::conditional_t<SingleSides, Spsc, Mpmc>;

public:
    class Worker {
    public:
        explicit Worker(BoostLockfreeAdapter& owner) : queue(owner.queue) {}
        size_t Push(size_t n)
        {
            if constexpr (SingleSides) {
                return queue.push(payload.items, n);
            } else {
                size_t i = 0;
                while (i < n && queue.bounded_push(payload.items[i])) {
                    ++i;
                }
                return i;
            }
        }
        size_t Pop(size_t max)
        {
            if constexpr (SingleSides) {
                return queue.pop(taken, max);
            } else {
                size_t i = 0;
                while (i < max && queue.pop(taken[i])) {
                    ++i;
                }
                return i;
            }
        }

    private:
        Queue& queue;
        Payload payload;
        void* taken[kMaxBulk];
    };

private:
    Queue queue;
};

} // namespace queue_bench
