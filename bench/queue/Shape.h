#pragma once

#include <cstdint>

namespace queue_bench {

/// How threads use the queue in one measurement.
enum class Scenario {
    OneCore,          // one thread enqueues a bulk, then dequeues it again
    ProducerConsumer, // one producer and one consumer thread on two processors
    BothWays,         // two threads, each enqueuing a bulk and dequeuing one
    Oversubscribed,   // two producers and two consumers on two processors
};

/// Which variant of a queue: one thread per side, or any number.
enum class Mode {
    Single, // single producer and single consumer
    Multi,  // multi-producer, multi-consumer
};

/// One measurement: scenario, elements per call, elements in total.
struct Shape {
    Scenario scenario;
    unsigned int bulk;
    uint64_t elements;
};

/// What a measurement found.
struct Result {
    double cyclesPerElement; // summed over threads, see Harness.h
    double seconds;          // wall time from the common start to the last thread's end
    bool sideBySide = true;  // false: two threads that spent most of the run apart, see Harness.h
};

/// Slots of every queue in the comparison: a ring of 4096, as DPDK's own
/// ring performance test uses, which holds 4095 elements.
constexpr unsigned int kRingSlots = 4096;
constexpr unsigned int kCapacity = kRingSlots - 1;
/// Largest bulk of the comparison.
constexpr unsigned int kMaxBulk = 32;

} // namespace queue_bench
