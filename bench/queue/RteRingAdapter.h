#pragma once

#include <cstdlib>
#include <memory>

#include <rte_ring.h>

#include "Payload.h"
#include "Shape.h"

namespace queue_bench {

/// DPDK's rte_ring, initialised on memory of our own (aligned to the cache
/// line) without starting DPDK's runtime, driven through its burst calls,
/// which like SDK::LocklessQueue move as many elements as possible.
template <bool SingleSides>
class RteRingAdapter {
public:
    RteRingAdapter()
    {
        const ssize_t bytes = rte_ring_get_memsize(kRingSlots);
        if (bytes > 0) {
            const size_t rounded = (static_cast<size_t>(bytes) + RTE_CACHE_LINE_SIZE - 1) /
                                   RTE_CACHE_LINE_SIZE * RTE_CACHE_LINE_SIZE;
            memory.reset(std::aligned_alloc(RTE_CACHE_LINE_SIZE, rounded));
        }
        if (memory == nullptr) {
            std::abort(); // nothing sensible to measure
        }
        ring = static_cast<rte_ring*>(memory.get());
        const unsigned int flags = SingleSides ? (RING_F_SP_ENQ | RING_F_SC_DEQ) : 0;
        if (rte_ring_init(ring, "bench", kRingSlots, flags) != 0) {
            std::abort();
        }
    }

    class Worker {
    public:
        explicit Worker(RteRingAdapter& owner) : ring(owner.ring) {}
        size_t Push(size_t n)
        {
            const auto count = static_cast<unsigned int>(n);
            return SingleSides ? rte_ring_sp_enqueue_burst(ring, payload.items, count, nullptr)
                               : rte_ring_mp_enqueue_burst(ring, payload.items, count, nullptr);
        }
        size_t Pop(size_t max)
        {
            const auto count = static_cast<unsigned int>(max);
            return SingleSides ? rte_ring_sc_dequeue_burst(ring, taken, count, nullptr)
                               : rte_ring_mc_dequeue_burst(ring, taken, count, nullptr);
        }

    private:
        rte_ring* ring;
        Payload payload;
        void* taken[kMaxBulk];
    };

private:
    struct Free {
        void operator()(void* p) const { std::free(p); }
    };
    std::unique_ptr<void, Free> memory;
    rte_ring* ring = nullptr;
};

} // namespace queue_bench
