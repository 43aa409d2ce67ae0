#pragma once

#include <cstdint>
#include <vector>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#else
#include <chrono>
#endif

#include <pthread.h>
#include <sched.h>

// Processor helpers of the queue benchmark: the time-stamp counter and
// pinning threads to processors.
namespace queue_bench {

/// The time-stamp counter, the clock the cycle figures are counted in
/// (nanoseconds where the processor has none).
inline uint64_t Cycles()
{
#if defined(__x86_64__) || defined(__i386__)
    return __rdtsc();
#else
    return static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
#endif
}

/// Spin-wait hint, as a queue's own wait loop would use.
inline void Pause()
{
#if defined(__x86_64__) || defined(__i386__)
    _mm_pause();
#endif
}

/// The processors this process may run on, in ascending order.
inline std::vector<int> AllowedProcessors()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    std::vector<int> cpus;
    if (sched_getaffinity(0, sizeof(set), &set) == 0) {
        for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
            if (CPU_ISSET(cpu, &set)) {
                cpus.push_back(cpu);
            }
        }
    }
    if (cpus.empty()) {
        cpus.push_back(0);
    }
    return cpus;
}

/// Pins the calling thread to `cpu`; a refusal leaves it unpinned.
inline void PinTo(int cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    (void)pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
}

} // namespace queue_bench
