#include "LatencyStats.h"

#include <algorithm>
#include <cmath>

namespace TfaBench {

void LatencyStats::Merge(const LatencyStats& other)
{
    samples.insert(samples.end(), other.samples.begin(), other.samples.end());
    elapsedSeconds += other.elapsedSeconds;
    sorted = false;
}

double LatencyStats::Throughput() const
{
    return elapsedSeconds > 0 ? static_cast<double>(samples.size()) / elapsedSeconds : 0;
}

double LatencyStats::PercentileMicros(double fraction) const
{
    if (samples.empty()) {
        return 0;
    }
    if (!sorted) {
        std::sort(samples.begin(), samples.end());
        sorted = true;
    }
    const auto rank = static_cast<size_t>(std::ceil(fraction * static_cast<double>(samples.size())));
    const size_t index = rank == 0 ? 0 : std::min(rank - 1, samples.size() - 1);
    return static_cast<double>(samples[index]) / 1000.0;
}

} // namespace TfaBench
