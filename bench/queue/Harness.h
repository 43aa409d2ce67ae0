#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "Processor.h"
#include "Shape.h"

// Runs one measurement on a queue adapter, the way DPDK's ring_perf_autotest
// does, so the figures compare directly with its output:
//  - every thread reads the time-stamp counter after a common start and again
//    when its share is done;
//  - cycles per element = the threads' cycle counts summed, divided by the
//    elements moved. For one thread that is its own cost of one enqueue plus
//    one dequeue per element; for a producer and a consumer it is the sum of
//    both sides' costs, as ring_perf prints for two cores;
//  - with more threads than processors the sum is scaled by processors /
//    threads, since the threads only had that many processors between them.
//
// Oversubscribed runs (more threads than processors) instead run for a fixed
// time and divide by what the consumers got.
//
// Two threads that spent most of a run apart (one held up by another process
// before it even started) did not measure two threads on one queue: the
// result says so, and Measure passes over such runs.
//
// An adapter `Q` is default-constructible with room for kCapacity elements,
// and has a nested `Q::Worker`, built from `Q&` by each thread, with
//   size_t Push(size_t n)   enqueue up to n (<= kMaxBulk) elements, return how many
//   size_t Pop(size_t max)  dequeue up to max elements, return how many
namespace queue_bench {

/// Retry policy after a full or empty queue, the same for every queue: spin
/// with the pause hint, as ring_perf does. Only with more threads than
/// processors, where the thread to wait for may not be running at all, the
/// processor is offered to others after a while.
class Backoff {
public:
    explicit Backoff(bool oversubscribed) : mayYield(oversubscribed) {}
    void Failed()
    {
        if (mayYield && ++failures >= 64) {
            std::this_thread::yield();
        } else {
            Pause();
        }
    }
    void Succeeded() { failures = 0; }

private:
    const bool mayYield;
    unsigned int failures = 0;
};

template <class Worker>
void PushAll(Worker& worker, size_t n, Backoff& backoff)
{
    while (n > 0) {
        const size_t pushed = worker.Push(n);
        n -= pushed;
        pushed == 0 ? backoff.Failed() : backoff.Succeeded();
    }
}

template <class Worker>
void PopExactly(Worker& worker, size_t n, size_t bulk, Backoff& backoff)
{
    while (n > 0) {
        const size_t popped = worker.Pop(n < bulk ? n : bulk);
        n -= popped;
        popped == 0 ? backoff.Failed() : backoff.Succeeded();
    }
}

/// Starts `threads` pinned threads on one fresh queue, releases them at once
/// and runs `work(threadIndex, worker, backoff, stop)` on each; work returns
/// how many elements its thread dequeued. With a `window`, `stop` is raised
/// that long after the start; without, the threads run to the end of their
/// share.
template <class Q, class Work>
Result RunThreads(unsigned int threads, std::chrono::milliseconds window, Work work)
{
    const std::vector<int> cpus = AllowedProcessors();
    const bool oversubscribed = threads > cpus.size();
    auto queue = std::make_unique<Q>();
    std::atomic<unsigned int> ready{0};
    std::atomic<bool> go{false};
    std::atomic<bool> stop{false};
    std::vector<uint64_t> begins(threads, 0);
    std::vector<uint64_t> ends(threads, 0);
    std::vector<uint64_t> dequeued(threads, 0);
    std::vector<std::thread> pool;
    for (unsigned int i = 0; i < threads; ++i) {
        pool.emplace_back([&, i] {
            PinTo(cpus[i % cpus.size()]);
            typename Q::Worker worker(*queue);
            Backoff backoff(oversubscribed);
            ready.fetch_add(1);
            // Yield, not spin: the starting thread may need this processor.
            while (!go.load(std::memory_order_acquire)) {
                std::this_thread::yield();
            }
            begins[i] = Cycles();
            dequeued[i] = work(i, worker, backoff, stop);
            ends[i] = Cycles();
        });
    }
    while (ready.load() < threads) {
        std::this_thread::yield();
    }
    const auto start = std::chrono::steady_clock::now();
    go.store(true, std::memory_order_release);
    if (window.count() > 0) {
        std::this_thread::sleep_for(window);
        stop.store(true);
    }
    for (auto& t : pool) {
        t.join();
    }
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;

    double total = 0;
    uint64_t elements = 0;
    for (unsigned int i = 0; i < threads; ++i) {
        total += static_cast<double>(ends[i] - begins[i]);
        elements += dequeued[i];
    }
    const double share = oversubscribed ? static_cast<double>(cpus.size()) / threads : 1.0;
    Result result{elements > 0 ? total * share / static_cast<double>(elements) : 0, wall.count()};
    if (threads == 2 && !oversubscribed) {
        const uint64_t first = std::min(begins[0], begins[1]);
        const uint64_t last = std::max(ends[0], ends[1]);
        const uint64_t lateStart = std::max(begins[0], begins[1]);
        const uint64_t earlyEnd = std::min(ends[0], ends[1]);
        // Side by side: together for at least 90% of the run.
        result.sideBySide = earlyEnd > lateStart && (earlyEnd - lateStart) * 10 >= (last - first) * 9;
    }
    return result;
}

/// How long an oversubscribed measurement runs, as ring_perf's test on all
/// cores: a fixed count could take minutes when threads keep being pre-empted
/// inside queue operations.
constexpr std::chrono::milliseconds kOversubscribedWindow{100};

/// One measurement of adapter `Q`; shape.elements must be a multiple of
/// 2 * shape.bulk.
template <class Q>
Result Run(const Shape& shape)
{
    using Worker = typename Q::Worker;
    using Stop = const std::atomic<bool>;
    const size_t bulk = shape.bulk;
    const uint64_t n = shape.elements;
    const std::chrono::milliseconds toTheEnd{0};
    // Each thread enqueues a bulk and dequeues one, `rounds` times.
    auto roundTrips = [bulk](uint64_t rounds) {
        return [bulk, rounds](unsigned int, Worker& w, Backoff& backoff, Stop&) {
            for (uint64_t r = 0; r < rounds; ++r) {
                PushAll(w, bulk, backoff);
                PopExactly(w, bulk, bulk, backoff);
            }
            return rounds * bulk;
        };
    };
    // Even threads produce, odd ones consume, each its share of the elements.
    auto producersAndConsumers = [bulk](uint64_t share) {
        return [bulk, share](unsigned int i, Worker& w, Backoff& backoff, Stop&) -> uint64_t {
            if (i % 2 == 0) {
                for (uint64_t done = 0; done < share; done += bulk) {
                    PushAll(w, share - done < bulk ? share - done : bulk, backoff);
                }
                return 0;
            }
            PopExactly(w, share, bulk, backoff);
            return share;
        };
    };
    // The same until `stop`, counting what the consumers got.
    auto untilStopped = [bulk](unsigned int i, Worker& w, Backoff& backoff, Stop& stop) {
        uint64_t got = 0;
        while (!stop.load(std::memory_order_relaxed)) {
            const size_t moved = i % 2 == 0 ? w.Push(bulk) : w.Pop(bulk);
            got += i % 2 == 0 ? 0 : moved;
            moved == 0 ? backoff.Failed() : backoff.Succeeded();
        }
        return got;
    };
    switch (shape.scenario) {
    case Scenario::OneCore:
        return RunThreads<Q>(1, toTheEnd, roundTrips(n / bulk));
    case Scenario::ProducerConsumer:
        return RunThreads<Q>(2, toTheEnd, producersAndConsumers(n));
    case Scenario::BothWays:
        return RunThreads<Q>(2, toTheEnd, roundTrips(n / (2 * bulk)));
    case Scenario::Oversubscribed:
        return RunThreads<Q>(4, kOversubscribedWindow, untilStopped);
    }
    return Result{0, 0};
}

/// Runs the single-side adapter or the multi-side one, by mode.
template <class Single, class Multi>
Result RunMode(const Shape& shape, Mode mode)
{
    return mode == Mode::Single ? Run<Single>(shape) : Run<Multi>(shape);
}

} // namespace queue_bench
