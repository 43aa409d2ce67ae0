#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <deque>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "StartAtQueue.h"

namespace {

using queue_test::StartAtQueue;

// Overrides the bulk operations, which the single ones must go through.
struct CountingQueue : StartAtQueue<int> {
    using StartAtQueue<int>::StartAtQueue;
    int EnqueueBulk(const std::vector<int>& elements, int count) override
    {
        lastCount = count;
        return StartAtQueue::EnqueueBulk(elements, count);
    }
    int DequeueBulk(std::vector<int>& elements, int maxCount) override
    {
        lastCount = maxCount;
        return StartAtQueue::DequeueBulk(elements, maxCount);
    }
    int lastCount = 0;
};

// One thread's view is a bounded FIFO in every mode, checked against a
// std::deque. Random bulks and limits, starts just below 2^32 and capacities
// below and equal to the ring size wrap runs and counters at every offset.
TEST(LocklessQueueTest, BehavesAsABoundedFifoInEveryMode)
{
    std::mt19937 random(7);
    const int limits[] = {-1, INT_MIN, 0, 1, 3, 5, 16, 20, INT_MAX};
    for (int mode = 0; mode < 4; ++mode) {
        for (unsigned int capacity : {0u, 1u, 3u, 6u, 8u, 37u, 0x80000000u}) {  // 0 and 2^31: inert
            for (uint32_t start : {0u, 5u, 0xfffffff9u, 0xffffffe0u}) {
                CountingQueue q(capacity, mode & 1, mode & 2, mode == 1 || mode == 2);
                q.StartAt(start);
                const size_t bound = capacity < 0x80000000u ? capacity : 0;  // what an int count can report
                std::deque<int> model;
                for (int step = 0, next = 0; step < 300; ++step) {
                    SCOPED_TRACE("mode " + std::to_string(mode) + " capacity " + std::to_string(capacity) +
                                 " start " + std::to_string(start) + " step " + std::to_string(step));
                    const unsigned int op = random() % 8;
                    q.lastCount = 0;
                    if (op < 3) {
                        std::vector<int> offer(op == 0 ? 1 : random() % 24);
                        for (int& element : offer) {
                            element = next++;
                        }
                        // The count argument is not used: the whole vector is offered.
                        const int added = op == 0 ? q.Enqueue(offer[0]) : q.EnqueueBulk(offer, 2);
                        ASSERT_EQ(q.lastCount, op == 0 ? 1 : 2);
                        ASSERT_EQ(added, static_cast<int>(std::min<size_t>(offer.size(), bound - model.size())));
                        model.insert(model.end(), offer.begin(), offer.begin() + added);
                        next -= static_cast<int>(offer.size()) - added;
                    } else if (op == 3) {
                        int element = -1;
                        ASSERT_EQ(q.Dequeue(element), model.empty() ? 0 : 1);
                        ASSERT_EQ(q.lastCount, 1) << "through the virtual DequeueBulk";
                        ASSERT_EQ(element, model.empty() ? -1 : model.front()) << "an empty queue leaves it alone";
                        if (!model.empty()) {
                            model.pop_front();
                        }
                    } else {
                        const int limit = limits[random() % (sizeof limits / sizeof limits[0])];
                        const size_t taken = std::min<size_t>(model.size(), static_cast<unsigned int>(limit));
                        std::vector<int> out = {-1};  // appended to, not cleared
                        ASSERT_EQ(q.DequeueBulk(out, limit), static_cast<int>(taken)) << "limit " << limit;
                        std::vector<int> expected = {-1};
                        expected.insert(expected.end(), model.begin(), model.begin() + taken);
                        model.erase(model.begin(), model.begin() + taken);
                        ASSERT_EQ(out, expected) << "limit " << limit;
                    }
                    ASSERT_EQ(q.Count(), model.size());
                }
            }
        }
    }
}

// Reference counts show which copies the queue keeps: `held` and `other` are
// the test's own. The reservations wrap: slots 2, 3, 0, 1, then 2 and 3 again.
TEST(LocklessQueueTest, ReleaseOnDequeueDecidesWhetherATakenSlotKeepsItsReference)
{
    for (bool release : {false, true}) {
        auto held = std::make_shared<int>(1);
        auto other = std::make_shared<int>(2);
        {
            StartAtQueue<std::shared_ptr<int>> q(4, false, true, release);
            q.StartAt(0xfffffffeu);
            ASSERT_EQ(q.EnqueueBulk(std::vector<std::shared_ptr<int>>(4, held), 0), 4);
            EXPECT_EQ(q.Enqueue(other), 0);
            EXPECT_EQ(other.use_count(), 1) << "a full queue drops the offered copy";
            std::vector<std::shared_ptr<int>> out;
            ASSERT_EQ(q.DequeueBulk(out, 3), 3);
            out.clear();
            EXPECT_EQ(held.use_count(), release ? 2 : 5) << "release " << release;
            ASSERT_EQ(q.EnqueueBulk({other, other}, 2), 2);
            EXPECT_EQ(held.use_count(), release ? 2 : 3) << "a reused slot drops its stale reference";
        }
        EXPECT_EQ(held.use_count() + other.use_count(), 2) << "the destructor drops every reference";
    }
}

// An element whose copy stalls: a slot handed to a consumer before its copy
// completed would come out with the slot's old value.
struct SlowCopy {
    int value = 0;
    SlowCopy& operator=(const SlowCopy& other)
    {
        if (other.value != 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        value = other.value;
        return *this;
    }
};

TEST(LocklessQueueTest, ASlotIsTakenOnlyOnceItsCopyIsComplete)
{
    for (const bool single : {true, false}) {
        SDK::LocklessQueue<SlowCopy> queue(8, single, single, false);
        std::thread producer([&queue] { queue.EnqueueBulk({SlowCopy{7}}, 0); });
        std::vector<SlowCopy> taken;
        while (queue.DequeueBulk(taken, 1) == 0) {
        }
        producer.join();
        EXPECT_EQ(taken.at(0).value, 7) << (single ? "single" : "multi");
    }
}

} // namespace
