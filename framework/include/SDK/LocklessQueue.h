#pragma once

#include <atomic>
#include <cstdint>
#include <new>
#include <vector>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace SDK {

/// Bounded lock-free ring queue for any number of producers and consumers.
///
/// Four free-running 32-bit counters drive it: producers reserve slots by
/// advancing `prodHead` and publish them by advancing `prodTail`; consumers do
/// the same with `consHead` and `consTail`. Counter c lives in slot c & mask.
///
/// Invariants (all arithmetic wraps at 2^32, only differences are compared):
///   consTail <= consHead <= prodTail <= prodHead <= consTail + capacity
///   entries    = prodTail - consHead   (published, not yet reserved by a consumer)
///   free space = capacity + consTail - prodHead
///
/// A side whose single flag is set must be used by one thread only; it then
/// reserves with a plain store and never waits. Otherwise reservation is a
/// compare-and-swap and publication waits until every earlier reservation of
/// the same side is published, so a thread pre-empted between the two stalls
/// its side (lock-free reservation, not wait-free).
template <typename T>
class LocklessQueue {
public:
    /// A queue holding at most `maxElements` elements, in a ring of the next
    /// power of two at or above it. A capacity of 0, or above 2^31, gives an
    /// inert queue (no ring; every operation returns 0). With
    /// `releaseOnDequeue` a slot drops its element as soon as it was taken.
    LocklessQueue(unsigned int maxElements, bool singleProducerOnly, bool singleConsumerOnly,
                  bool releaseSlotOnDequeue)
        : singleProducer(singleProducerOnly),
          singleConsumer(singleConsumerOnly),
          releaseOnDequeue(releaseSlotOnDequeue)
    {
        if (maxElements == 0 || maxElements > (1u << 31)) {
            return;
        }
        unsigned int ringSize = 1;
        while (ringSize < maxElements) {
            ringSize <<= 1;
        }
        ring = new (std::nothrow) T[ringSize];
        if (ring != nullptr) {
            size = ringSize;
            mask = ringSize - 1;
            capacity = maxElements;
        }
    }

    virtual ~LocklessQueue()
    {
        if (ring == nullptr) {
            return;
        }
        // Release every reference still held, last slot first.
        for (uint32_t i = size; i > 0; --i) {
            ring[i - 1] = T();
        }
        delete[] ring;
        ring = nullptr;
    }

    LocklessQueue(const LocklessQueue&) = delete;
    LocklessQueue& operator=(const LocklessQueue&) = delete;

    /// Adds as many elements of `elements` as fit, in order; returns how many.
    /// `count` is not used: the whole vector is offered.
    virtual int EnqueueBulk(const std::vector<T>& elements, int count)
    {
        (void)count;
        if (ring == nullptr) {
            return 0;
        }
        const uint32_t offered = static_cast<uint32_t>(elements.size());
        uint32_t old = prodHead.load(std::memory_order_relaxed);
        uint32_t n = 0;
        for (;;) {
            // Acquire pairs with the consumers' release-store of consTail: the
            // slots they freed have been read before we overwrite them.
            const uint32_t freeSpace = capacity + consTail.load(std::memory_order_acquire) - old;
            n = offered < freeSpace ? offered : freeSpace;
            if (n == 0) {
                return 0;
            }
            if (singleProducer) {
                prodHead.store(old + n, std::memory_order_relaxed);
                break;
            }
            // On failure `old` is reloaded with the current prodHead.
            if (prodHead.compare_exchange_weak(old, old + n, std::memory_order_seq_cst,
                                               std::memory_order_relaxed)) {
                break;
            }
        }
        _EnqueueElements(old, elements, n);
        if (!singleProducer) {
            // Earlier reservations publish first, in reservation order.
            while (prodTail.load(std::memory_order_relaxed) != old) {
                Pause();
            }
        }
        // Release pairs with the consumers' acquire-load of prodTail.
        prodTail.store(old + n, std::memory_order_release);
        return static_cast<int>(n);
    }

    /// Appends up to `maxCount` elements (all present for a negative value) to
    /// `elements`; returns how many.
    virtual int DequeueBulk(std::vector<T>& elements, int maxCount)
    {
        if (ring == nullptr) {
            return 0;
        }
        const uint32_t wanted = static_cast<uint32_t>(maxCount);
        uint32_t old = consHead.load(std::memory_order_relaxed);
        uint32_t n = 0;
        for (;;) {
            // Acquire pairs with the producers' release-store of prodTail: the
            // published slots are fully written.
            const uint32_t entries = prodTail.load(std::memory_order_acquire) - old;
            n = wanted < entries ? wanted : entries;
            if (n == 0) {
                return 0;
            }
            if (singleConsumer) {
                consHead.store(old + n, std::memory_order_relaxed);
                break;
            }
            if (consHead.compare_exchange_weak(old, old + n, std::memory_order_seq_cst,
                                               std::memory_order_relaxed)) {
                break;
            }
        }
        _DequeueElements(old, elements, n);
        if (!singleConsumer) {
            while (consTail.load(std::memory_order_relaxed) != old) {
                Pause();
            }
        }
        // Release pairs with the producers' acquire-load of consTail.
        consTail.store(old + n, std::memory_order_release);
        return static_cast<int>(n);
    }

    /// Adds one element; returns 1, or 0 when the queue is full.
    int Enqueue(const T& element)
    {
        std::vector<T> one(1, element);
        return EnqueueBulk(one, 1);
    }

    /// Takes one element into `element` and returns 1; returns 0 and leaves
    /// `element` untouched when the queue is empty.
    int Dequeue(T& element)
    {
        std::vector<T> one;
        if (DequeueBulk(one, 1) != 1) {
            return 0;
        }
        element = one[0];
        return 1;
    }

    /// Elements published and not yet taken (a snapshot).
    unsigned int Count() const
    {
        return prodTail.load(std::memory_order_acquire) - consHead.load(std::memory_order_acquire);
    }
    unsigned int Capacity() const { return capacity; }
    unsigned int RingSize() const { return size; }

protected:
    /// Copies elements[0, n) into the n slots starting at counter `head`.
    void _EnqueueElements(unsigned int head, const std::vector<T>& elements, unsigned int n)
    {
        const uint32_t index = head & mask;
        const T* src = elements.data();
        if (index + n < size) {
            CopyRun(src, ring + index, n);
        } else {
            const uint32_t first = size - index;
            CopyRun(src, ring + index, first);
            CopyRun(src + first, ring, n - first);
        }
    }

    /// Appends the n slots starting at counter `head` to `elements`.
    void _DequeueElements(unsigned int head, std::vector<T>& elements, unsigned int n)
    {
        const uint32_t index = head & mask;
        if (index + n < size) {
            TakeRun(ring + index, n, elements);
        } else {
            const uint32_t first = size - index;
            TakeRun(ring + index, first, elements);
            TakeRun(ring, n - first, elements);
        }
    }

    /// Sets the four counters to `value` on an empty queue (tests of wrap-around).
    void ResetCounters(uint32_t value)
    {
        prodHead.store(value);
        prodTail.store(value);
        consHead.store(value);
        consTail.store(value);
    }

private:
    static void Pause()
    {
#if defined(__x86_64__) || defined(__i386__)
        _mm_pause();
#elif defined(__aarch64__)
        asm volatile("yield" ::: "memory");
#endif
    }

    static void CopyRun(const T* src, T* dst, uint32_t n)
    {
        uint32_t i = 0;
        for (; i + 4 <= n; i += 4) {
            dst[i] = src[i];
            dst[i + 1] = src[i + 1];
            dst[i + 2] = src[i + 2];
            dst[i + 3] = src[i + 3];
        }
        for (; i < n; ++i) {
            dst[i] = src[i];
        }
    }

    void TakeRun(T* slots, uint32_t n, std::vector<T>& out)
    {
        uint32_t i = 0;
        for (; i + 4 <= n; i += 4) {
            Take(slots[i], out);
            Take(slots[i + 1], out);
            Take(slots[i + 2], out);
            Take(slots[i + 3], out);
        }
        for (; i < n; ++i) {
            Take(slots[i], out);
        }
    }

    void Take(T& slot, std::vector<T>& out)
    {
        out.push_back(slot);
        if (releaseOnDequeue) {
            slot = T();
        }
    }

    // Producer pair and consumer pair on cache lines of their own, so the two
    // sides do not invalidate each other's counters.
    alignas(64) std::atomic<uint32_t> prodHead{0};
    std::atomic<uint32_t> prodTail{0};
    alignas(64) std::atomic<uint32_t> consHead{0};
    std::atomic<uint32_t> consTail{0};
    alignas(64) bool singleProducer;
    bool singleConsumer;
    uint32_t size = 0;
    uint32_t mask = 0;
    uint32_t capacity = 0;
    bool releaseOnDequeue;
    T* ring = nullptr;
};

} // namespace SDK
