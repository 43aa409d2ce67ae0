#pragma once

#include <cstdint>

#include "Shape.h"

namespace queue_bench {

/// The elements every queue carries: pointer-sized and never null (some
/// queues reserve null as their empty marker), like the object pointers
/// DPDK's ring test moves.
struct Payload {
    Payload()
    {
        for (unsigned int i = 0; i < kMaxBulk; ++i) {
            items[i] = reinterpret_cast<void*>(static_cast<uintptr_t>(i + 1) * 64);
        }
    }
    void* items[kMaxBulk];
};

} // namespace queue_bench
