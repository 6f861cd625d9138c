// The Prometheus text exposition format (version 0.0.4), written by hand:
// families with their HELP and TYPE lines, samples with labels, and the
// escaping that keeps a label value or a help text from breaking a line.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Histogram.h"

namespace tarsel::daemon {

using Label = std::pair<std::string, std::string>;
using Labels = std::vector<Label>;

enum class MetricType { Counter, Gauge, Histogram };

/* "\\" and "\n" escaped, as a HELP text needs them. */
std::string escapeHelp(std::string const& text);
/* "\\", "\"" and "\n" escaped, as a label value needs them. */
std::string escapeLabelValue(std::string const& text);
/* A sample value: integers without a fraction, "+Inf", "-Inf", "NaN". */
std::string sampleValue(double value);

class Exposition {
  public:
    /* Starts a family: its HELP and TYPE lines. The name must be a valid
     * metric name ([a-zA-Z_:][a-zA-Z0-9_:]*): it is ours, not a client's. */
    void family(std::string const& name, std::string const& help, MetricType type);
    void sample(std::string const& name, Labels const& labels, double value);
    void sample(std::string const& name, double value) { sample(name, {}, value); }
    /* The _bucket (cumulative, le="+Inf" last), _sum and _count lines of a
     * histogram family started with family(). */
    void histogram(std::string const& name, Labels const& labels,
                   HistogramSnapshot const& snapshot);

    std::string const& text() const { return m_text; }

  private:
    std::string m_text;
};

}  // namespace tarsel::daemon
