#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <thread>
#include <utility>
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
///
/// Memory ordering: a tail is stored with release once the slots behind it
/// were written (producers) or read (consumers), and every load of a tail is
/// an acquire, so slot contents always travel with the counter that hands
/// them over, also through the same-side wait of a later reservation. A head
/// is read with acquire before the other side's tail; that keeps the tail
/// reading at least as recent as the one behind the head, so the difference
/// of the two can never wrap into a huge bogus free space or entry count.
///
/// Layout: each counter pair, the configuration and the ring start on
/// 128-byte boundaries, so no two of them share a cache line or the line
/// pair that adjacent-line prefetchers fetch together; with the ring aligned
/// too, a bulk of 8 pointers fills exactly one line instead of straddling two.
template <typename T>
class LocklessQueue {
public:
    /// A queue holding at most `maxElements`, in a ring of the next power of
    /// two at or above it. Zero, or more than an `int` count can report, gives
    /// an inert queue (no ring; every operation returns 0), as does a failed
    /// allocation. With `releaseSlotOnDequeue` a slot drops its element as
    /// soon as it was taken, so the queue never keeps a taken element alive.
    LocklessQueue(unsigned int maxElements, bool singleProducerOnly, bool singleConsumerOnly,
                  bool releaseSlotOnDequeue)
        : singleProducer(singleProducerOnly),
          singleConsumer(singleConsumerOnly),
          releaseOnDequeue(releaseSlotOnDequeue)
    {
        if (maxElements == 0 || maxElements > kMaxCapacity) {
            return;
        }
        uint32_t ringSize = 1;
        while (ringSize < maxElements) {
            ringSize <<= 1;
        }
        ring = AllocateRing(ringSize);
        if (ring != nullptr) {
            size = ringSize;
            mask = ringSize - 1;
            capacity = maxElements;
        }
    }

    /// Releases every element the ring still holds, taken or not.
    virtual ~LocklessQueue()
    {
        if (ring == nullptr) {
            return;
        }
        for (uint32_t i = size; i > 0; --i) {
            ring[i - 1].~T();
        }
        ::operator delete[](ring, std::align_val_t{kAlignment});
        ring = nullptr;
    }

    LocklessQueue(const LocklessQueue&) = delete;
    LocklessQueue& operator=(const LocklessQueue&) = delete;

    /// Adds one element; returns 1, or 0 when the queue is full. Goes through
    /// the virtual EnqueueBulk, so an override of that changes this too.
    virtual int Enqueue(const T& element)
    {
        try {
            std::vector<T> one(1, element);
            return EnqueueBulk(one, 1);
        } catch (const std::bad_alloc&) {
            return 0;
        }
    }

    /// Adds as many elements of `elements` as fit, in order; returns how many.
    /// `count` is not used: the whole vector is always offered.
    /// (Forced inline where the compiler sees the queue's exact type, as for a
    /// member queue: a call costs more than a small bulk itself.)
    [[gnu::always_inline]] virtual int EnqueueBulk(const std::vector<T>& elements, int count)
    {
        (void)count;
        if (ring == nullptr) {
            return 0;
        }
        auto nothingToPrepare = [](uint32_t) { return true; };
        uint32_t old = 0;
        const uint32_t n = Reserve(prodHead, consTail, capacity, singleProducer,
                                   static_cast<uint32_t>(elements.size()), old, nothingToPrepare);
        if (n == 0) {
            return 0;
        }
        _EnqueueElements(old, elements, n);
        Publish(prodTail, singleProducer, old, old + n);
        return static_cast<int>(n);
    }

    /// Takes one element into `element` and returns 1; returns 0 and leaves
    /// `element` untouched when the queue is empty. Goes through the virtual
    /// DequeueBulk.
    virtual int Dequeue(T& element)
    {
        std::vector<T> one;
        if (DequeueBulk(one, 1) != 1) {
            return 0;
        }
        element = one[0];
        return 1;
    }

    /// Appends up to `maxCount` elements (every one present for a negative
    /// value) to the end of `elements`, which is not cleared; returns how many.
    /// Returns 0, taking nothing, if `elements` cannot grow enough.
    [[gnu::always_inline]] virtual int DequeueBulk(std::vector<T>& elements, int maxCount)
    {
        if (ring == nullptr) {
            return 0;
        }
        // The vector grows before slots are claimed: once they are, the copy
        // must not fail half-way.
        auto makeRoom = [&elements](uint32_t n) { return MakeRoom(elements, n); };
        uint32_t old = 0;
        const uint32_t n = Reserve(consHead, prodTail, 0, singleConsumer,
                                   static_cast<uint32_t>(maxCount), old, makeRoom);
        if (n == 0) {
            return 0;
        }
        _DequeueElements(old, elements, n);
        Publish(consTail, singleConsumer, old, old + n);
        return static_cast<int>(n);
    }

    /// Elements published and not yet taken (a snapshot, for monitoring).
    unsigned int Count() const
    {
        // consHead first: it never passes prodTail, so the later prodTail
        // reading is at least as large and the difference cannot wrap.
        const uint32_t taken = consHead.load(std::memory_order_acquire);
        return prodTail.load(std::memory_order_acquire) - taken;
    }
    unsigned int Capacity() const { return capacity; }
    unsigned int RingSize() const { return size; }

protected:
    /// Copies elements[0, n) into the n slots starting at counter `head`.
    [[gnu::always_inline]] void _EnqueueElements(unsigned int head, const std::vector<T>& elements,
                                                 unsigned int n)
    {
        const uint32_t index = head & mask;
        if (index + n < size) {
            CopyRun(elements.data(), ring + index, n);
        } else {
            CopyWrapped(elements.data(), index, n);
        }
    }

    /// Appends the n slots starting at counter `head` to `elements`.
    [[gnu::always_inline]] void _DequeueElements(unsigned int head, std::vector<T>& elements,
                                                 unsigned int n)
    {
        const uint32_t index = head & mask;
        if (index + n < size) {
            TakeRun(ring + index, n, elements);
        } else {
            TakeWrapped(index, n, elements);
        }
    }

    /// Sets the four counters to `value` on an empty queue, so tests can
    /// start just below the 2^32 wrap.
    void ResetCounters(uint32_t value)
    {
        prodHead.store(value);
        prodTail.store(value);
        consHead.store(value);
        consTail.store(value);
    }

private:
    // Counts travel as int; a larger capacity could not be reported.
    static constexpr uint32_t kMaxCapacity = 0x7fffffffu;
    static constexpr size_t kAlignment = 128;
    // A few microseconds of pausing, depending on the processor: far longer
    // than a running publisher needs to copy its bulk.
    static constexpr unsigned int kSpinsBeforeYield = 128;
    static constexpr uint32_t kInsertRunsFrom = 16;

    /// Value-initialised slots on a kAlignment boundary; nullptr on failure.
    static T* AllocateRing(uint32_t slots) noexcept
    {
        if (slots > SIZE_MAX / sizeof(T)) {
            return nullptr;
        }
        void* raw = ::operator new[](sizeof(T) * slots, std::align_val_t{kAlignment}, std::nothrow);
        if (raw == nullptr) {
            return nullptr;
        }
        T* first = static_cast<T*>(raw);
        try {
            std::uninitialized_value_construct_n(first, slots);
        } catch (...) {
            ::operator delete[](raw, std::align_val_t{kAlignment});
            return nullptr;
        }
        return first;
    }

    /// Claims up to `wanted` slots on one side; returns how many (0: none
    /// available, or `prepare` refused) and the first one's counter in `old`.
    /// `bound` is what the other side's tail is offset by: `capacity` for
    /// producers (free space), 0 for consumers (entries). `prepare(n)` runs
    /// before every attempt to claim n slots.
    template <typename Prepare>
    [[gnu::always_inline]] static uint32_t Reserve(std::atomic<uint32_t>& head,
                                                   const std::atomic<uint32_t>& otherTail,
                                                   uint32_t bound, bool single, uint32_t wanted,
                                                   uint32_t& old, Prepare prepare)
    {
        old = head.load(single ? std::memory_order_relaxed : std::memory_order_acquire);
        for (;;) {
            // Acquire: the slots counted here were fully written (entries) or
            // fully read (free space) by the other side.
            const uint32_t room = bound + otherTail.load(std::memory_order_acquire) - old;
            const uint32_t n = wanted < room ? wanted : room;
            if (n == 0 || !prepare(n)) {
                return 0;
            }
            if (single) {
                head.store(old + n, std::memory_order_relaxed);
                return n;
            }
            // On failure `old` is reloaded, with acquire as above.
            if (head.compare_exchange_weak(old, old + n, std::memory_order_seq_cst,
                                           std::memory_order_acquire)) {
                return n;
            }
        }
    }

    /// Moves a side's tail from `old` to `next` once every earlier
    /// reservation of that side is published.
    [[gnu::always_inline]] static void Publish(std::atomic<uint32_t>& tail, bool single,
                                               uint32_t old, uint32_t next)
    {
        if (!single && tail.load(std::memory_order_acquire) != old) {
            WaitForTail(tail, old);
        }
        tail.store(next, std::memory_order_release);
    }

    static void Pause()
    {
#if defined(__x86_64__) || defined(__i386__)
        _mm_pause();
#elif defined(__aarch64__)
        asm volatile("yield" ::: "memory");
#endif
    }

    /// Waits until `tail` reaches `value`. The usual wait is another thread
    /// copying a few elements, which a short pause spin covers. A longer one
    /// means that thread was pre-empted; spinning on would burn whole time
    /// slices, and with more threads than processors every later reservation
    /// would queue up behind one scheduler round each. So from then on the
    /// processor is offered to it.
    [[gnu::noinline]] static void WaitForTail(const std::atomic<uint32_t>& tail, uint32_t value)
    {
        for (unsigned int spins = 0; tail.load(std::memory_order_acquire) != value; ++spins) {
            if (spins < kSpinsBeforeYield) {
                Pause();
            } else {
                std::this_thread::yield();
            }
        }
    }

    /// Ensures `out` can take n more elements without reallocating.
    static bool MakeRoom(std::vector<T>& out, uint32_t n) noexcept
    {
        return out.capacity() - out.size() >= n || Grow(out, n);
    }

    [[gnu::noinline]] static bool Grow(std::vector<T>& out, uint32_t n) noexcept
    {
        try {
            const size_t needed = out.size() + n;
            out.reserve(needed > 2 * out.capacity() ? needed : 2 * out.capacity());
            return true;
        } catch (...) {
            return false;
        }
    }

    /// The reservation wraps: copies up to the end of the ring, then on from
    /// slot 0 (once per trip round the ring, so kept out of line).
    [[gnu::noinline]] void CopyWrapped(const T* src, uint32_t index, uint32_t n)
    {
        const uint32_t first = size - index;
        CopyRun(src, ring + index, first);
        CopyRun(src + first, ring, n - first);
    }

    [[gnu::noinline]] void TakeWrapped(uint32_t index, uint32_t n, std::vector<T>& out)
    {
        const uint32_t first = size - index;
        TakeRun(ring + index, first, out);
        TakeRun(ring, n - first, out);
    }

    [[gnu::always_inline]] static void CopyRun(const T* src, T* dst, uint32_t n)
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

    [[gnu::always_inline]] void TakeRun(T* slots, uint32_t n, std::vector<T>& out)
    {
        if (releaseOnDequeue) {
            // Moving hands the elements over without copying them (for a
            // shared pointer: no reference count traffic); the reset makes
            // the slots empty whatever T leaves behind when moved from.
            AppendRun(std::make_move_iterator(slots), n, out);
            for (uint32_t i = 0; i < n; ++i) {
                slots[i] = T();
            }
            return;
        }
        AppendRun(slots, n, out);
    }

    /// Appends n elements from `first` to `out`, which has room for them.
    /// One insert per run: push_back updates the vector's end once per
    /// element, a chain of dependent stores and loads that costs more than
    /// the copy itself. Runs too short to repay the call are pushed one by one.
    template <typename Iterator>
    [[gnu::always_inline]] static void AppendRun(Iterator first, uint32_t n, std::vector<T>& out)
    {
        if (n >= kInsertRunsFrom) {
            out.insert(out.end(), first, first + n);
            return;
        }
        for (uint32_t i = 0; i < n; ++i) {
            out.push_back(first[i]);
        }
    }

    alignas(kAlignment) std::atomic<uint32_t> prodHead{0};
    std::atomic<uint32_t> prodTail{0};
    alignas(kAlignment) std::atomic<uint32_t> consHead{0};
    std::atomic<uint32_t> consTail{0};
    alignas(kAlignment) bool singleProducer;
    bool singleConsumer;
    uint32_t size = 0;
    uint32_t mask = 0;
    uint32_t capacity = 0;
    bool releaseOnDequeue;
    T* ring = nullptr;
};

} // namespace SDK
