#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace TfaBench {

/// Round-trip times of one load run and what they add up to.
class LatencyStats {
public:
    /// Adds one round trip of `nanoseconds`.
    void Add(uint64_t nanoseconds) { samples.push_back(nanoseconds); }
    /// Takes in another run's samples and wall time.
    void Merge(const LatencyStats& other);
    /// Wall time the samples were taken in.
    void AddElapsed(double seconds) { elapsedSeconds += seconds; }

    size_t Count() const { return samples.size(); }
    /// Requests per second over the wall time.
    double Throughput() const;
    /// The `fraction` quantile (0.5, 0.99, 0.999) in microseconds, nearest rank.
    double PercentileMicros(double fraction) const;

private:
    mutable std::vector<uint64_t> samples;
    mutable bool sorted = false;
    double elapsedSeconds = 0;
};

} // namespace TfaBench
