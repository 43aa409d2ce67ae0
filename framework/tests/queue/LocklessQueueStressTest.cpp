#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "StartAtQueue.h"

// Many threads through one small queue, every element stamped with its
// producer and sequence number and checked on the way out. Element counts
// are bounded, and a deadline stops every thread should the queue lose or
// stall an element, so a fault fails the test instead of hanging it.

namespace {

#if defined(__SANITIZE_THREAD__)
constexpr uint32_t kPerProducer = 50000; // ThreadSanitizer runs several times slower
#else
constexpr uint32_t kPerProducer = 200000;
#endif
constexpr auto kDeadline = std::chrono::seconds(60);

struct Stamp {
    uint32_t producer = 0;
    uint32_t sequence = 0;
};

struct Scenario {
    const char* name;
    unsigned int producers;
    unsigned int consumers;
    unsigned int capacity;
    uint32_t startCounter; // near 2^32 to wrap the counters early in the run
};

// Names the scenario in gtest's messages instead of dumping its bytes.
void PrintTo(const Scenario& s, std::ostream* os)
{
    *os << s.name;
}

class StressRun {
public:
    explicit StressRun(const Scenario& s)
        : scenario(s),
          queue(s.capacity, s.producers == 1, s.consumers == 1, true),
          taken(s.consumers),
          total(static_cast<uint64_t>(s.producers) * kPerProducer)
    {
        queue.StartAt(s.startCounter);
    }

    /// Runs every thread to the end or to the deadline; false on the deadline.
    bool Execute()
    {
        deadline = std::chrono::steady_clock::now() + kDeadline;
        std::vector<std::thread> threads;
        for (unsigned int p = 0; p < scenario.producers; ++p) {
            threads.emplace_back([this, p] { Produce(p); });
        }
        for (unsigned int c = 0; c < scenario.consumers; ++c) {
            threads.emplace_back([this, c] { Consume(c); });
        }
        for (auto& t : threads) {
            t.join();
        }
        return !timedOut.load();
    }

    /// Every element taken exactly once, each producer's in order per consumer.
    void Check() const
    {
        std::vector<std::vector<uint8_t>> seen(scenario.producers,
                                               std::vector<uint8_t>(kPerProducer, 0));
        uint64_t count = 0;
        for (size_t c = 0; c < taken.size(); ++c) {
            std::vector<int64_t> last(scenario.producers, -1);
            for (const Stamp& s : taken[c]) {
                ASSERT_LT(s.producer, scenario.producers);
                ASSERT_LT(s.sequence, kPerProducer);
                ASSERT_GT(static_cast<int64_t>(s.sequence), last[s.producer])
                    << "consumer " << c << " got producer " << s.producer << " out of order";
                last[s.producer] = s.sequence;
                ASSERT_EQ(seen[s.producer][s.sequence]++, 0)
                    << "producer " << s.producer << " element " << s.sequence << " taken twice";
                ++count;
            }
        }
        EXPECT_EQ(count, total);
        EXPECT_EQ(queue.Count(), 0u);
    }

private:
    bool Expired()
    {
        if (std::chrono::steady_clock::now() < deadline) {
            return false;
        }
        timedOut.store(true);
        return true;
    }

    // Offers bulks of varying size (1..13); whatever did not fit is offered
    // again at the front of the next bulk, so order is kept.
    void Produce(uint32_t id)
    {
        std::vector<Stamp> batch;
        uint32_t next = 0;
        unsigned int round = 0;
        while (next < kPerProducer || !batch.empty()) {
            const size_t want = 1 + (round++ * 7 + id) % 13;
            while (batch.size() < want && next < kPerProducer) {
                batch.push_back(Stamp{id, next++});
            }
            const int added = queue.EnqueueBulk(batch, 0);
            batch.erase(batch.begin(), batch.begin() + added);
            if (added == 0) {
                if (timedOut.load() || Expired()) {
                    return;
                }
                std::this_thread::yield();
            }
        }
    }

    // Takes with varying limits, "everything" (-1) among them, appending to
    // this consumer's record.
    void Consume(unsigned int id)
    {
        static constexpr int kLimits[] = {1, 5, 16, -1, 3, 64};
        std::vector<Stamp>& record = taken[id];
        record.reserve(total);
        unsigned int round = 0;
        while (consumed.load() < total) {
            const int got = queue.DequeueBulk(record, kLimits[round++ % 6]);
            if (got > 0) {
                consumed.fetch_add(static_cast<uint64_t>(got));
            } else {
                if (timedOut.load() || Expired()) {
                    return;
                }
                std::this_thread::yield();
            }
        }
    }

    const Scenario scenario;
    queue_test::StartAtQueue<Stamp> queue;
    std::vector<std::vector<Stamp>> taken;
    const uint64_t total;
    std::atomic<uint64_t> consumed{0};
    std::atomic<bool> timedOut{false};
    std::chrono::steady_clock::time_point deadline;
};

class LocklessQueueStress : public ::testing::TestWithParam<Scenario> {};

TEST_P(LocklessQueueStress, EveryElementOnceAndInProducerOrder)
{
    StressRun run(GetParam());
    ASSERT_TRUE(run.Execute()) << "deadline passed: an element was lost or the queue stalled";
    run.Check();
}

constexpr uint32_t kNearWrap = 0xffffffffu - 5000;

INSTANTIATE_TEST_SUITE_P(
    Threads, LocklessQueueStress,
    ::testing::Values(Scenario{"SingleProducerSingleConsumer", 1, 1, 100, 0},
                      Scenario{"SingleProducerSingleConsumerNearWrap", 1, 1, 100, kNearWrap},
                      Scenario{"ManyProducersOneConsumer", 3, 1, 50, kNearWrap},
                      Scenario{"OneProducerManyConsumers", 1, 3, 50, 0},
                      Scenario{"ManyProducersManyConsumers", 3, 3, 64, 0},
                      Scenario{"ManyProducersManyConsumersNearWrap", 3, 3, 37, kNearWrap}),
    [](const ::testing::TestParamInfo<Scenario>& p) { return std::string(p.param.name); });

// The framework's own arrangement (many producers, one consumer, slots
// released on dequeue) with shared pointers: when everything is drained and
// the consumer's copies dropped, nothing may still reference an element.
TEST(LocklessQueueStressShared, NoReferenceSurvivesTheQueue)
{
    constexpr unsigned int kProducers = 3;
    constexpr uint32_t kEach = kPerProducer / 4;
    queue_test::StartAtQueue<std::shared_ptr<Stamp>> queue(16, false, true, true);
    queue.StartAt(kNearWrap);
    std::vector<std::shared_ptr<Stamp>> all;
    for (uint32_t p = 0; p < kProducers; ++p) {
        for (uint32_t i = 0; i < kEach; ++i) {
            all.push_back(std::make_shared<Stamp>(Stamp{p, i}));
        }
    }
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    std::vector<std::thread> producers;
    for (uint32_t p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            for (uint32_t i = 0; i < kEach && std::chrono::steady_clock::now() < deadline;) {
                if (queue.Enqueue(all[p * kEach + i]) == 1) {
                    ++i;
                } else {
                    std::this_thread::yield(); // full: let the consumer run
                }
            }
        });
    }
    std::vector<uint32_t> next(kProducers, 0);
    uint32_t received = 0;
    uint32_t outOfOrder = 0;
    std::vector<std::shared_ptr<Stamp>> batch;
    while (received < kProducers * kEach && std::chrono::steady_clock::now() < deadline) {
        batch.clear();
        const int got = queue.DequeueBulk(batch, 128);
        if (got == 0) {
            std::this_thread::yield(); // empty: let the producers run
        }
        received += static_cast<uint32_t>(got);
        for (const auto& s : batch) {
            outOfOrder += s->sequence != next[s->producer]++ ? 1 : 0;
        }
    }
    batch.clear();
    for (auto& t : producers) {
        t.join();
    }
    ASSERT_EQ(received, kProducers * kEach);
    EXPECT_EQ(outOfOrder, 0u);
    for (const auto& s : all) {
        ASSERT_EQ(s.use_count(), 1);
    }
}

} // namespace
