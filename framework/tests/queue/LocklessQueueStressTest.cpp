#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "StartAtQueue.h"

// Many threads through one small queue, every element stamped with its
// producer and sequence number and checked on the way out: a slot read
// before it was written, or read twice, shows as an element out of order or
// taken twice. A deadline stops every thread should the queue lose or stall
// an element.

namespace {

#if defined(__SANITIZE_THREAD__)
constexpr uint32_t kPerProducer = 50000; // ThreadSanitizer runs many times slower
#else
constexpr uint32_t kPerProducer = 200000;
#endif
constexpr uint32_t kNearWrap = 0xffffffffu - 5000;

struct Stamp {
    uint32_t producer, sequence;
};

struct Scenario {
    const char* name;
    uint32_t producers, consumers;
    unsigned int capacity;
    uint32_t startCounter; // near 2^32 to wrap the counters early in the run
    bool release;
} const kScenarios[] = {
    {"one producer, one consumer", 1, 1, 100, 0, false},
    {"one producer, one consumer, near the wrap", 1, 1, 100, kNearWrap, true},
    {"many producers, one consumer, near the wrap", 3, 1, 50, kNearWrap, true},
    {"one producer, many consumers", 1, 3, 50, 0, false},
    {"many producers, many consumers", 3, 3, 64, 0, true},
    {"many producers, many consumers, near the wrap", 3, 3, 37, kNearWrap, false},
};

void RunScenario(const Scenario& s)
{
    queue_test::StartAtQueue<Stamp> queue(s.capacity, s.producers == 1, s.consumers == 1, s.release);
    queue.StartAt(s.startCounter);
    const uint64_t total = uint64_t{s.producers} * kPerProducer;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    auto expired = [deadline] { return std::chrono::steady_clock::now() > deadline; };
    std::atomic<uint64_t> consumed{0};
    std::vector<std::vector<Stamp>> taken(s.consumers);
    std::vector<std::thread> threads;
    for (uint32_t p = 0; p < s.producers; ++p) {
        // Bulks of 1..13; what did not fit leads the next bulk, so order is kept.
        threads.emplace_back([&, p] {
            std::vector<Stamp> bulk;
            for (uint32_t next = 0, round = 0; (next < kPerProducer || !bulk.empty()) && !expired(); ++round) {
                while (bulk.size() < 1 + (round * 7 + p) % 13 && next < kPerProducer) {
                    bulk.push_back(Stamp{p, next++});
                }
                const int added = queue.EnqueueBulk(bulk, 0);
                bulk.erase(bulk.begin(), bulk.begin() + added);
                if (added == 0) {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (uint32_t c = 0; c < s.consumers; ++c) {
        // Varying limits, "everything" (-1) among them, appended to this consumer's record.
        threads.emplace_back([&, c] {
            static constexpr int kLimits[] = {1, 5, 16, -1, 3, 64};
            taken[c].reserve(total);
            for (unsigned int round = 0; consumed.load() < total && !expired(); ++round) {
                const int got = queue.DequeueBulk(taken[c], kLimits[round % 6]);
                consumed.fetch_add(static_cast<uint64_t>(got));
                if (got == 0) {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    ASSERT_FALSE(expired()) << "deadline passed: an element was lost or the queue stalled";
    std::vector<std::vector<uint8_t>> seen(s.producers, std::vector<uint8_t>(kPerProducer, 0));
    for (const std::vector<Stamp>& record : taken) {
        std::vector<int64_t> last(s.producers, -1);
        for (const Stamp& stamp : record) {
            ASSERT_TRUE(stamp.producer < s.producers && stamp.sequence < kPerProducer);
            ASSERT_GT(int64_t{stamp.sequence}, last[stamp.producer]) << "out of order";
            last[stamp.producer] = stamp.sequence;
            ASSERT_EQ(seen[stamp.producer][stamp.sequence]++, 0) << "taken twice";
        }
    }
    EXPECT_EQ(consumed.load(), total);
    EXPECT_EQ(queue.Count(), 0u);
}

TEST(LocklessQueueStress, EveryElementOnceAndInProducerOrder)
{
    for (const Scenario& scenario : kScenarios) {
        SCOPED_TRACE(scenario.name);
        RunScenario(scenario);
    }
}

} // namespace
