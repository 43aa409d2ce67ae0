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
/// An inert queue (no ring) has capacity 0 and counters that never move, so
/// both are always 0 there and every operation returns 0 without a test of
/// its own.
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
/// Code layout: each bulk operation tests its side's mode once and runs code
/// made for that mode. A single side's usual case (no wrap at the ring's end,
/// a short run, room in the caller's vector) is a few dozen instructions,
/// inline and small enough for the compiler to inline at the call site too;
/// anything else goes to the general code out of line. A multi side's cost
/// is its compare-and-swap and the lines it shares, so it runs out of line
/// as a whole: a call costs little there, and kept out it leaves the single
/// side's code small. Out-of-line code hands unusual cases on to further
/// functions as its last act, so its usual path needs no saved registers.
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
        return singleProducer ? ProduceSingle(elements) : ProduceMulti(elements);
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
        return singleConsumer ? ConsumeSingle(elements, maxCount) : ConsumeMulti(elements, maxCount);
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
    void _EnqueueElements(unsigned int head, const std::vector<T>& elements, unsigned int n)
    {
        const uint32_t index = head & mask;
        if (index + n <= size) {
            CopyRun(elements.data(), ring + index, n);
        } else {
            CopyWrapped(elements.data(), index, n);
        }
    }

    /// Appends the n slots starting at counter `head` to `elements`, which
    /// has room for them.
    void _DequeueElements(unsigned int head, std::vector<T>& elements, unsigned int n)
    {
        const uint32_t index = head & mask;
        if (index + n <= size) {
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
    // Runs this long are appended with one insert (out of line), shorter ones
    // element by element inline.
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

    /// EnqueueBulk of a single producer: the usual case inline.
    [[gnu::always_inline]] int ProduceSingle(const std::vector<T>& elements)
    {
        const uint32_t offered = static_cast<uint32_t>(elements.size());
        const uint32_t old = prodHead.load(std::memory_order_relaxed);
        // Acquire pairs with the consumers' release of consTail: the slots
        // counted free here have been fully read.
        const uint32_t room = capacity + consTail.load(std::memory_order_acquire) - old;
        const uint32_t n = offered < room ? offered : room;
        const uint32_t index = old & mask;
        if (n == 0 || index + n > size) {
            return n == 0 ? 0 : ProduceGeneral<true>(elements);
        }
        prodHead.store(old + n, std::memory_order_relaxed);
        CopyRun(elements.data(), ring + index, n);
        prodTail.store(old + n, std::memory_order_release);  // pairs with the consumers' acquire
        return static_cast<int>(n);
    }

    /// EnqueueBulk of any number of producers.
    [[gnu::noinline]] int ProduceMulti(const std::vector<T>& elements)
    {
        const uint32_t offered = static_cast<uint32_t>(elements.size());
        uint32_t old = LoadHead<false>(prodHead);
        const uint32_t room = capacity + consTail.load(std::memory_order_acquire) - old;
        const uint32_t n = offered < room ? offered : room;
        if (n == 0) {
            return 0;
        }
        if (!Claim<false>(prodHead, old, n)) {
            return ProduceGeneral<false>(elements);
        }
        const uint32_t index = old & mask;
        if (index + n > size) {
            return ProduceClaimed<false>(old, elements, n);
        }
        CopyRun(elements.data(), ring + index, n);
        return Publish<false>(prodTail, old, n);
    }

    /// The whole of EnqueueBulk for one mode, retrying the reservation when
    /// another producer moved the head first.
    template <bool Single>
    [[gnu::noinline]] int ProduceGeneral(const std::vector<T>& elements)
    {
        const uint32_t offered = static_cast<uint32_t>(elements.size());
        uint32_t old = LoadHead<Single>(prodHead);
        uint32_t n = 0;
        do {
            const uint32_t room = capacity + consTail.load(std::memory_order_acquire) - old;
            n = offered < room ? offered : room;
            if (n == 0) {
                return 0;
            }
        } while (!Claim<Single>(prodHead, old, n));
        return ProduceClaimed<Single>(old, elements, n);
    }

    /// Fills and publishes the n slots claimed from `old` on, wherever they are.
    template <bool Single>
    [[gnu::noinline]] int ProduceClaimed(uint32_t old, const std::vector<T>& elements, uint32_t n)
    {
        _EnqueueElements(old, elements, n);
        return Publish<Single>(prodTail, old, n);
    }

    /// DequeueBulk of a single consumer: the usual case inline.
    [[gnu::always_inline]] int ConsumeSingle(std::vector<T>& out, int maxCount)
    {
        const uint32_t wanted = static_cast<uint32_t>(maxCount);
        const uint32_t old = consHead.load(std::memory_order_relaxed);
        // Acquire pairs with the producers' release of prodTail: the slots
        // counted here have been fully written.
        const uint32_t entries = prodTail.load(std::memory_order_acquire) - old;
        const uint32_t n = wanted < entries ? wanted : entries;
        if (n == 0) {
            return 0;
        }
        const uint32_t index = old & mask;
        if (index + n > size || n >= kInsertRunsFrom || releaseOnDequeue || Room(out) < n) {
            return ConsumeGeneral<true>(out, wanted);
        }
        consHead.store(old + n, std::memory_order_relaxed);
        AppendRun(ring + index, n, out);
        consTail.store(old + n, std::memory_order_release);  // pairs with the producers' acquire
        return static_cast<int>(n);
    }

    /// DequeueBulk of any number of consumers.
    [[gnu::noinline]] int ConsumeMulti(std::vector<T>& out, int maxCount)
    {
        const uint32_t wanted = static_cast<uint32_t>(maxCount);
        uint32_t old = LoadHead<false>(consHead);
        const uint32_t entries = prodTail.load(std::memory_order_acquire) - old;
        const uint32_t n = wanted < entries ? wanted : entries;
        if (n == 0) {
            return 0;
        }
        // The vector must have room before slots are claimed: once they are,
        // the copy must not fail half-way.
        if (Room(out) < n || !Claim<false>(consHead, old, n)) {
            return ConsumeGeneral<false>(out, wanted);
        }
        const uint32_t index = old & mask;
        if (index + n > size || n >= kInsertRunsFrom || releaseOnDequeue) {
            return ConsumeClaimed<false>(old, out, n);
        }
        AppendRun(ring + index, n, out);
        return Publish<false>(consTail, old, n);
    }

    /// The whole of DequeueBulk for one mode, growing `out` first where it
    /// must and retrying the reservation when another consumer moved the
    /// head first.
    template <bool Single>
    [[gnu::noinline]] int ConsumeGeneral(std::vector<T>& out, uint32_t wanted)
    {
        uint32_t old = LoadHead<Single>(consHead);
        uint32_t n = 0;
        do {
            const uint32_t entries = prodTail.load(std::memory_order_acquire) - old;
            n = wanted < entries ? wanted : entries;
            if (n == 0 || (Room(out) < n && !Grow(out, n))) {
                return 0;
            }
        } while (!Claim<Single>(consHead, old, n));
        return ConsumeClaimed<Single>(old, out, n);
    }

    /// Empties and releases the n slots claimed from `old` on, wherever they are.
    template <bool Single>
    [[gnu::noinline]] int ConsumeClaimed(uint32_t old, std::vector<T>& out, uint32_t n)
    {
        _DequeueElements(old, out, n);
        return Publish<Single>(consTail, old, n);
    }

    /// A side's head as the start of a reservation. Only its own thread
    /// writes a single side's head; otherwise the acquire orders the later
    /// read of the other side's tail after it, so that tail is at least as
    /// recent as the one behind this head and the difference cannot wrap.
    template <bool Single>
    [[gnu::always_inline]] static uint32_t LoadHead(const std::atomic<uint32_t>& head)
    {
        return head.load(Single ? std::memory_order_relaxed : std::memory_order_acquire);
    }

    /// Moves `head` from `old` past n slots. A single side stores plainly;
    /// otherwise a compare-and-swap, which on failure reloads `old` (acquire,
    /// as in LoadHead) for the caller to size the reservation again.
    template <bool Single>
    [[gnu::always_inline]] static bool Claim(std::atomic<uint32_t>& head, uint32_t& old, uint32_t n)
    {
        if (Single) {
            head.store(old + n, std::memory_order_relaxed);
            return true;
        }
        return head.compare_exchange_weak(old, old + n, std::memory_order_seq_cst,
                                          std::memory_order_acquire);
    }

    /// Moves a side's tail from `old` past n slots once every earlier
    /// reservation of that side is published; returns n. The release pairs
    /// with the other side's acquire of this tail, and with the acquire in
    /// WaitThenPublish of a later reservation on this side.
    template <bool Single>
    [[gnu::always_inline]] static int Publish(std::atomic<uint32_t>& tail, uint32_t old, uint32_t n)
    {
        if (!Single && tail.load(std::memory_order_acquire) != old) {
            return WaitThenPublish(tail, old, n);
        }
        tail.store(old + n, std::memory_order_release);
        return static_cast<int>(n);
    }

    static void Pause()
    {
#if defined(__x86_64__) || defined(__i386__)
        _mm_pause();
#elif defined(__aarch64__)
        asm volatile("yield" ::: "memory");
#endif
    }

    /// Publish behind an earlier reservation still being filled or emptied.
    /// The usual wait is another thread copying a few elements, which a short
    /// pause spin covers. A longer one means that thread was pre-empted;
    /// spinning on would burn whole time slices, and with more threads than
    /// processors every later reservation would queue up behind one scheduler
    /// round each. So from then on the processor is offered to it.
    [[gnu::noinline]] static int WaitThenPublish(std::atomic<uint32_t>& tail, uint32_t old,
                                                 uint32_t n)
    {
        for (unsigned int spins = 0; tail.load(std::memory_order_acquire) != old; ++spins) {
            if (spins < kSpinsBeforeYield) {
                Pause();
            } else {
                std::this_thread::yield();
            }
        }
        tail.store(old + n, std::memory_order_release);
        return static_cast<int>(n);
    }

    /// How many more elements `out` takes without reallocating. (Counted
    /// between the end and the end of the storage: capacity() - size() makes
    /// the compiler load the start as well and divide twice.)
    [[gnu::always_inline]] static size_t Room(const std::vector<T>& out)
    {
        const T* end = out.data() + out.size();
        return static_cast<size_t>(out.data() + out.capacity() - end);
    }

    /// Makes room for n more elements in `out`, at least doubling it so a
    /// reused vector stops growing soon; false if it cannot.
    [[gnu::noinline, gnu::cold]] static bool Grow(std::vector<T>& out, uint32_t n) noexcept
    {
        try {
            const size_t needed = out.size() + n;
            out.reserve(needed > 2 * out.capacity() ? needed : 2 * out.capacity());
            return true;
        } catch (...) {
            return false;
        }
    }

    /// The run wraps: copies up to the end of the ring, then on from slot 0
    /// (once per trip round the ring, so kept out of line).
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

    /// Copies n elements. A plain loop: unrolled by four it measured slower
    /// for the short runs a bulk usually is (more code, a remainder step).
    /// One element, as Enqueue offers, is copied without setting up a loop.
    [[gnu::always_inline]] static void CopyRun(const T* src, T* dst, uint32_t n)
    {
        if (n == 1) {
            dst[0] = src[0];
            return;
        }
        for (uint32_t i = 0; i < n; ++i) {
            dst[i] = src[i];
        }
    }

    /// Appends n slots to `out`, which has room for them.
    void TakeRun(T* slots, uint32_t n, std::vector<T>& out)
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
    /// Long runs go in with one insert, which sets the vector's end once;
    /// short ones are pushed one by one, cheaper than that call. Telling the
    /// compiler that every push fits drops push_back's reallocation call, so
    /// it can keep the vector's end in a register for the whole run.
    template <typename Iterator>
    [[gnu::always_inline]] static void AppendRun(Iterator first, uint32_t n, std::vector<T>& out)
    {
        if (n >= kInsertRunsFrom) {
            out.insert(out.end(), first, first + n);
            return;
        }
        for (uint32_t i = 0; i < n; ++i) {
            if (out.size() == out.capacity()) {
                __builtin_unreachable();
            }
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
