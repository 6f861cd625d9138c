#include "Histogram.h"

#include <algorithm>

namespace tarsel::daemon {

Histogram::Histogram(std::vector<double> bounds) {
    m_snapshot.bounds = std::move(bounds);
    m_snapshot.counts.assign(m_snapshot.bounds.size(), 0);
}

void Histogram::observe(double value) {
    auto const& bounds = m_snapshot.bounds;
    // "le": a value equal to a bound belongs to that bound's bucket.
    auto const bucket = std::lower_bound(bounds.begin(), bounds.end(), value);
    if (bucket != bounds.end()) {
        ++m_snapshot.counts[static_cast<std::size_t>(bucket - bounds.begin())];
    }
    ++m_snapshot.count;
    m_snapshot.sum += value;
}

std::vector<double> pollLatencyBounds() {
    return {0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1.0, 2.5, 5.0, 10.0};
}

}  // namespace tarsel::daemon
