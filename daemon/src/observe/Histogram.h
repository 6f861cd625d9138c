// A histogram of durations with fixed buckets: one increment per
// observation, nothing allocated after construction.
#pragma once

#include <cstdint>
#include <vector>

namespace tarsel::daemon {

/* Upper bounds of histogram buckets and the counts of each one. */
struct HistogramSnapshot {
    std::vector<double> bounds;         // ascending, without +Inf
    std::vector<std::uint64_t> counts;  // per bound, not cumulative
    std::uint64_t count = 0;            // all observations (the +Inf bucket)
    double sum = 0.0;
};

class Histogram {
  public:
    /* Bounds in seconds, ascending; everything above the last falls in +Inf
     * only. */
    explicit Histogram(std::vector<double> bounds);

    void observe(double value);
    HistogramSnapshot const& snapshot() const { return m_snapshot; }

  private:
    HistogramSnapshot m_snapshot;
};

/* From 5 ms to 10 s: a poll of upsd on loopback takes milliseconds, one that
 * hits the client library's 5 s bound lands near the top. */
std::vector<double> pollLatencyBounds();

}  // namespace tarsel::daemon
