#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <memory>
#include <numeric>
#include <vector>

#include "SDK/LocklessQueue.h"
#include "StartAtQueue.h"

namespace {

using queue_test::StartAtQueue;
using IntQueue = StartAtQueue<int>;

std::vector<int> Range(int from, int count)
{
    std::vector<int> v(static_cast<size_t>(count));
    std::iota(v.begin(), v.end(), from);
    return v;
}

std::vector<int> DrainAll(SDK::LocklessQueue<int>& q)
{
    std::vector<int> out;
    q.DequeueBulk(out, -1);
    return out;
}

// The four combinations of the single-producer and single-consumer flags:
// single-threaded behaviour must not depend on them.
class EveryMode : public ::testing::TestWithParam<std::pair<bool, bool>> {
protected:
    IntQueue Make(unsigned int capacity)
    {
        return IntQueue(capacity, GetParam().first, GetParam().second, false);
    }
};

INSTANTIATE_TEST_SUITE_P(Flags, EveryMode,
                         ::testing::Values(std::make_pair(false, false), std::make_pair(true, false),
                                           std::make_pair(false, true), std::make_pair(true, true)));

TEST(LocklessQueueTest, RingIsNextPowerOfTwoAndCapacityIsKept)
{
    const struct {
        unsigned int capacity;
        unsigned int ring;
    } cases[] = {{1, 1}, {2, 2}, {3, 4}, {4, 4}, {5, 8}, {1000, 1024}, {1024, 1024}, {1025, 2048}};
    for (const auto& c : cases) {
        SDK::LocklessQueue<int> q(c.capacity, false, false, false);
        EXPECT_EQ(q.RingSize(), c.ring) << "capacity " << c.capacity;
        EXPECT_EQ(q.Capacity(), c.capacity);
    }
}

TEST_P(EveryMode, HoldsExactlyCapacityNotRingSize)
{
    for (unsigned int capacity : {1u, 3u, 4u, 5u, 8u}) {
        IntQueue q = Make(capacity);
        for (unsigned int i = 0; i < capacity; ++i) {
            ASSERT_EQ(q.Enqueue(static_cast<int>(i)), 1) << "capacity " << capacity;
        }
        EXPECT_EQ(q.Enqueue(99), 0) << "capacity " << capacity;
        EXPECT_EQ(q.Count(), capacity);
        EXPECT_EQ(DrainAll(q), Range(0, static_cast<int>(capacity)));
        EXPECT_EQ(q.Count(), 0u);
    }
}

TEST_P(EveryMode, SingleElementOperationsAreFifoAndEmptyLeavesElementAlone)
{
    IntQueue q = Make(4);
    int element = -7;
    EXPECT_EQ(q.Dequeue(element), 0);
    EXPECT_EQ(element, -7);
    for (int i = 1; i <= 3; ++i) {
        ASSERT_EQ(q.Enqueue(i), 1);
    }
    for (int i = 1; i <= 3; ++i) {
        ASSERT_EQ(q.Dequeue(element), 1);
        EXPECT_EQ(element, i);
    }
    EXPECT_EQ(q.Dequeue(element), 0);
    EXPECT_EQ(element, 3);
}

TEST_P(EveryMode, BulkEnqueueTakesWhatFitsAndIgnoresCount)
{
    const struct {
        int alreadyQueued;
        int offered;
        int count;
        int expected;
    } cases[] = {
        {3, 5, 5, 1},  // one free slot of four
        {4, 2, 2, 0},  // full
        {0, 0, 1, 0},  // nothing offered, whatever count says
        {0, 3, 1, 3},  // count smaller than the vector: the vector wins
        {0, 2, 0, 2},  // count zero
        {1, 2, -1, 2}, // negative count
        {0, 9, 9, 4},  // more than capacity into an empty queue
    };
    for (const auto& c : cases) {
        IntQueue q = Make(4);
        ASSERT_EQ(q.EnqueueBulk(Range(0, c.alreadyQueued), 0), c.alreadyQueued);
        EXPECT_EQ(q.EnqueueBulk(Range(100, c.offered), c.count), c.expected)
            << "queued " << c.alreadyQueued << " offered " << c.offered << " count " << c.count;
        std::vector<int> expected = Range(0, c.alreadyQueued);
        const std::vector<int> added = Range(100, c.expected);
        expected.insert(expected.end(), added.begin(), added.end());
        EXPECT_EQ(DrainAll(q), expected);
    }
}

TEST_P(EveryMode, BulkDequeueAppendsUpToMaxCount)
{
    const struct {
        int maxCount;
        int expected;
    } cases[] = {{0, 0}, {1, 1}, {3, 3}, {5, 5}, {6, 5}, {INT_MAX, 5}, {-1, 5}, {INT_MIN, 5}};
    for (const auto& c : cases) {
        IntQueue q = Make(8);
        ASSERT_EQ(q.EnqueueBulk(Range(0, 5), 5), 5);
        std::vector<int> out = {-1, -2};
        EXPECT_EQ(q.DequeueBulk(out, c.maxCount), c.expected) << "maxCount " << c.maxCount;
        std::vector<int> expected = {-1, -2};
        const std::vector<int> taken = Range(0, c.expected);
        expected.insert(expected.end(), taken.begin(), taken.end());
        EXPECT_EQ(out, expected) << "maxCount " << c.maxCount;
        EXPECT_EQ(q.Count(), static_cast<unsigned int>(5 - c.expected));
    }
}

// Every start slot and every length, so runs that end just before, exactly
// at and past the end of the ring all come out whole and in order.
TEST_P(EveryMode, ReservationsAcrossTheRingEndKeepTheirOrder)
{
    constexpr int kRing = 8;
    for (int start = 0; start < kRing; ++start) {
        for (int n = 1; n <= kRing; ++n) {
            IntQueue q = Make(kRing);
            q.StartAt(static_cast<uint32_t>(start));
            ASSERT_EQ(q.EnqueueBulk(Range(10, n), n), n);
            EXPECT_EQ(DrainAll(q), Range(10, n)) << "start " << start << " n " << n;
        }
    }
}

TEST_P(EveryMode, CountersWrappingPastTwoToThe32KeepEntriesAndFreeSpace)
{
    for (uint32_t start : {0xffffffffu, 0xfffffffdu, 0xfffffff8u, 0xfffffffcu}) {
        IntQueue q = Make(6);
        q.StartAt(start);
        int next = 0;
        int expectedOut = 0;
        // Several rounds of fill-to-full and partial drain walk the counters
        // well past the wrap.
        for (int round = 0; round < 5; ++round) {
            const unsigned int before = q.Count();
            const int added = q.EnqueueBulk(Range(next, 10), 10);
            ASSERT_EQ(added, static_cast<int>(6 - before)) << "start " << start << " round " << round;
            next += added;
            ASSERT_EQ(q.Count(), 6u);
            ASSERT_EQ(q.Enqueue(-1), 0);
            std::vector<int> out;
            ASSERT_EQ(q.DequeueBulk(out, 4), 4);
            EXPECT_EQ(out, Range(expectedOut, 4));
            expectedOut += 4;
            EXPECT_EQ(q.Count(), 2u);
        }
    }
}

TEST(LocklessQueueTest, InertQueueDoesNothing)
{
    for (unsigned int capacity : {0u, 0x80000000u, 0xffffffffu}) {
        SDK::LocklessQueue<int> q(capacity, false, false, true);
        int element = 5;
        std::vector<int> out = {1};
        EXPECT_EQ(q.Enqueue(1), 0);
        EXPECT_EQ(q.EnqueueBulk({1, 2}, 2), 0);
        EXPECT_EQ(q.Dequeue(element), 0);
        EXPECT_EQ(q.DequeueBulk(out, -1), 0);
        EXPECT_EQ(element, 5);
        EXPECT_EQ(out, std::vector<int>{1});
        EXPECT_EQ(q.Count(), 0u);
        EXPECT_EQ(q.RingSize(), 0u);
    }
}

// The reference counts of shared pointers show exactly which copies the queue
// keeps: `held` is the caller's own reference.
TEST(LocklessQueueReferenceTest, TakenSlotKeepsItsReferenceUntilReusedUnlessReleased)
{
    for (bool release : {false, true}) {
        SDK::LocklessQueue<std::shared_ptr<int>> q(1, false, false, release);
        auto held = std::make_shared<int>(1);
        ASSERT_EQ(q.Enqueue(held), 1);
        EXPECT_EQ(held.use_count(), 2) << "the temporary of Enqueue is gone";

        std::vector<std::shared_ptr<int>> out;
        ASSERT_EQ(q.DequeueBulk(out, 1), 1);
        EXPECT_EQ(out[0], held);
        out.clear();
        EXPECT_EQ(held.use_count(), release ? 1 : 2) << "release " << release;

        // Reusing the slot drops the stale reference in any case.
        ASSERT_EQ(q.Enqueue(std::make_shared<int>(2)), 1);
        EXPECT_EQ(held.use_count(), 1);
    }
}

TEST(LocklessQueueReferenceTest, SingleDequeueHandsOverTheElement)
{
    for (bool release : {false, true}) {
        SDK::LocklessQueue<std::shared_ptr<int>> q(2, false, true, release);
        auto held = std::make_shared<int>(7);
        ASSERT_EQ(q.Enqueue(held), 1);
        std::shared_ptr<int> taken;
        ASSERT_EQ(q.Dequeue(taken), 1);
        EXPECT_EQ(taken, held);
        EXPECT_EQ(held.use_count(), release ? 2 : 3) << "release " << release;
    }
}

TEST(LocklessQueueReferenceTest, FullQueueDropsTheOfferedCopy)
{
    SDK::LocklessQueue<std::shared_ptr<int>> q(1, false, false, true);
    auto first = std::make_shared<int>(1);
    auto second = std::make_shared<int>(2);
    ASSERT_EQ(q.Enqueue(first), 1);
    EXPECT_EQ(q.Enqueue(second), 0);
    EXPECT_EQ(second.use_count(), 1);
}

TEST(LocklessQueueReferenceTest, DestructorReleasesTakenAndUntakenElements)
{
    for (bool release : {false, true}) {
        std::vector<std::shared_ptr<int>> held;
        for (int i = 0; i < 6; ++i) {
            held.push_back(std::make_shared<int>(i));
        }
        {
            StartAtQueue<std::shared_ptr<int>> q(4, false, false, release);
            q.StartAt(0xfffffffeu);
            ASSERT_EQ(q.EnqueueBulk(held, 0), 4);
            std::vector<std::shared_ptr<int>> out;
            ASSERT_EQ(q.DequeueBulk(out, 3), 3);
            out.clear();
            // Two more wrap into slots 0 and 1: the ring now holds three
            // untaken elements and, without release, one stale taken one.
            ASSERT_EQ(q.EnqueueBulk({held[4], held[5]}, 2), 2);
        }
        for (size_t i = 0; i < held.size(); ++i) {
            EXPECT_EQ(held[i].use_count(), 1) << "element " << i << " release " << release;
        }
    }
}

// A subclass that overrides the bulk operations sees the single-element
// operations come through them.
class CountingQueue : public SDK::LocklessQueue<int> {
public:
    CountingQueue() : SDK::LocklessQueue<int>(4, false, false, false) {}
    int EnqueueBulk(const std::vector<int>& elements, int count) override
    {
        ++bulkEnqueues;
        return SDK::LocklessQueue<int>::EnqueueBulk(elements, count);
    }
    int DequeueBulk(std::vector<int>& elements, int maxCount) override
    {
        ++bulkDequeues;
        lastMaxCount = maxCount;
        return SDK::LocklessQueue<int>::DequeueBulk(elements, maxCount);
    }
    int bulkEnqueues = 0;
    int bulkDequeues = 0;
    int lastMaxCount = 0;
};

TEST(LocklessQueueTest, SingleOperationsGoThroughTheVirtualBulkOperations)
{
    CountingQueue counting;
    SDK::LocklessQueue<int>& q = counting;
    int element = 0;
    EXPECT_EQ(q.Enqueue(3), 1);
    EXPECT_EQ(q.Dequeue(element), 1);
    EXPECT_EQ(element, 3);
    EXPECT_EQ(counting.bulkEnqueues, 1);
    EXPECT_EQ(counting.bulkDequeues, 1);
    EXPECT_EQ(counting.lastMaxCount, 1);
}

} // namespace
