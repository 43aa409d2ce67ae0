// Cycles per element of SDK::LocklessQueue and of other queues, measured in
// the same run the way DPDK's ring_perf_autotest measures rte_ring. Results
// and the exact command are in docs/benchmarks.md.
//
//   queue_bench [--smoke | --once=N] [--repetitions=N] [Google Benchmark flags]
//
// --smoke runs every measurement once on a few thousand elements: a check
// that each queue builds and runs, not a measurement. --once=N runs each
// once on N elements, for counting instructions (bench/queue/count-instructions).
// --repetitions sets how many repetitions each figure is the minimum (or
// median) of; 9 by default.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Peer.h"
#include "Shape.h"

namespace {

using queue_bench::Mode;
using queue_bench::Peer;
using queue_bench::Result;
using queue_bench::Scenario;
using queue_bench::Shape;

constexpr uint64_t kSmokeElements = uint64_t{1} << 11;

std::vector<Peer> Peers()
{
    std::vector<Peer> peers{queue_bench::LocklessQueuePeer()};
#ifdef BRACKMOOR_BENCH_RTE_RING
    peers.push_back(queue_bench::RteRingPeer());
#endif
#ifdef BRACKMOOR_BENCH_MOODYCAMEL
    peers.push_back(queue_bench::MoodycamelPeer());
#endif
#ifdef BRACKMOOR_BENCH_ATOMIC_QUEUE
    peers.push_back(queue_bench::AtomicQueuePeer());
#endif
#ifdef BRACKMOOR_BENCH_BOOST_LOCKFREE
    peers.push_back(queue_bench::BoostLockfreePeer());
#endif
#ifdef BRACKMOOR_BENCH_TBB
    peers.push_back(queue_bench::TbbPeer());
#endif
    peers.push_back(queue_bench::MutexDequePeer());
    return peers;
}

struct Configuration {
    const char* name;
    Scenario scenario;
    Mode mode;
    uint64_t elements; // per measurement
};

// Rows of the comparison. Scenarios with two threads on one side have no
// single-producer/consumer variant. (Oversubscribed runs are timed, their
// element count is not used.)
constexpr uint64_t kElements = uint64_t{1} << 20;
const Configuration kConfigurations[] = {
    {"one_core/spsc", Scenario::OneCore, Mode::Single, kElements},
    {"one_core/mpmc", Scenario::OneCore, Mode::Multi, kElements},
    {"two_cores/spsc", Scenario::ProducerConsumer, Mode::Single, kElements},
    {"two_cores/mpmc", Scenario::ProducerConsumer, Mode::Multi, kElements},
    {"two_cores_both_ways/mpmc", Scenario::BothWays, Mode::Multi, kElements / 4},
    {"oversubscribed_2p2c/mpmc", Scenario::Oversubscribed, Mode::Multi, kElements},
};

// A repetition runs the measurement as often as its minimum time asks and
// keeps the least disturbed run: on a shared machine a run that another
// process interrupted shows that process, not the queue. Runs whose two
// threads spent most of the time apart count only when no run had them side
// by side (counter "apart": how many there were).
void Measure(benchmark::State& state, Peer peer, Shape shape, Mode mode)
{
    double best = 0;
    double bestApart = 0;
    int apart = 0;
    for (auto _ : state) {
        const Result result = peer.run(shape, mode);
        state.SetIterationTime(result.seconds);
        double& keep = result.sideBySide ? best : bestApart;
        keep = keep == 0 || result.cyclesPerElement < keep ? result.cyclesPerElement : keep;
        apart += result.sideBySide ? 0 : 1;
    }
    state.counters["cycles_per_elem"] = best != 0 ? best : bestApart;
    state.counters["apart"] = apart;
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(shape.elements));
}

struct Options {
    uint64_t once = 0;     // elements of a single run per measurement; 0: measure
    int repetitions = 9;
};

void RegisterAll(const Options& options)
{
    const std::vector<Peer> peers = Peers();
    for (const Configuration& config : kConfigurations) {
        for (unsigned int bulk : {1u, 8u, 32u}) {
            for (const Peer& peer : peers) {
                const std::string name = std::string(config.name) + "/bulk:" +
                                         std::to_string(bulk) + "/" + peer.name;
                const Shape shape{config.scenario, bulk, options.once != 0 ? options.once : config.elements};
                auto* bench = benchmark::RegisterBenchmark(name.c_str(), Measure, peer, shape,
                                                           config.mode);
                bench->UseManualTime()->Unit(benchmark::kMillisecond);
                if (options.once != 0) {
                    bench->Iterations(1);
                } else {
                    // The machine is shared: the least disturbed of several
                    // interleaved repetitions shows the queue's own cost best.
                    bench->MinTime(0.05)->Repetitions(options.repetitions)->ReportAggregatesOnly(true);
                    bench->ComputeStatistics("min", [](const std::vector<double>& v) {
                        return *std::min_element(v.begin(), v.end());
                    });
                }
            }
        }
    }
}

// Takes this program's own flags out of the arguments.
Options TakeOwnFlags(int& argc, char** argv)
{
    Options options;
    int kept = 0;
    for (int i = 0; i < argc; ++i) {
        const char* arg = argv[i];
        if (i > 0 && std::strcmp(arg, "--smoke") == 0) {
            options.once = kSmokeElements;
        } else if (i > 0 && std::strncmp(arg, "--once=", 7) == 0 && std::atoll(arg + 7) > 0) {
            // Whole round trips of every bulk size in every scenario.
            options.once = static_cast<uint64_t>(std::atoll(arg + 7)) / 64 * 64;
        } else if (i > 0 && std::strncmp(arg, "--repetitions=", 14) == 0 && std::atoi(arg + 14) > 0) {
            options.repetitions = std::atoi(arg + 14);
        } else {
            argv[kept++] = argv[i];
        }
    }
    argc = kept;
    return options;
}

} // namespace

int main(int argc, char** argv)
{
    const Options options = TakeOwnFlags(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    RegisterAll(options);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
