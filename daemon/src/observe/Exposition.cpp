#include "Exposition.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace tarsel::daemon {

namespace {

std::string escape(std::string const& text, bool quotes) {
    std::string escaped;
    escaped.reserve(text.size());
    for (char const c : text) {
        if (c == '\\') {
            escaped += "\\\\";
        } else if (c == '\n') {
            escaped += "\\n";
        } else if (c == '"' && quotes) {
            escaped += "\\\"";
        } else {
            escaped += c;
        }
    }
    return escaped;
}

char const* typeName(MetricType type) {
    switch (type) {
        case MetricType::Counter:
            return "counter";
        case MetricType::Gauge:
            return "gauge";
        case MetricType::Histogram:
            return "histogram";
    }
    return "untyped";
}

std::string labelText(Labels const& labels) {
    if (labels.empty()) {
        return {};
    }
    std::string text = "{";
    for (std::size_t i = 0; i < labels.size(); ++i) {
        text += (i > 0 ? "," : "") + labels[i].first + "=\"" + escapeLabelValue(labels[i].second) +
                "\"";
    }
    return text + "}";
}

}  // namespace

std::string escapeHelp(std::string const& text) {
    return escape(text, false);
}

std::string escapeLabelValue(std::string const& text) {
    return escape(text, true);
}

std::string sampleValue(double value) {
    if (std::isnan(value)) {
        return "NaN";
    }
    if (std::isinf(value)) {
        return value > 0 ? "+Inf" : "-Inf";
    }
    // Counters are integers and must read as such, up to 2^53 exactly.
    if (value == std::floor(value) && std::fabs(value) < 9007199254740992.0) {
        return std::to_string(static_cast<long long>(value));
    }
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.17g", value);
    // The shortest text that reads back as the same double.
    for (int precision = 1; precision < 17; ++precision) {
        char shorter[32];
        std::snprintf(shorter, sizeof shorter, "%.*g", precision, value);
        if (std::strtod(shorter, nullptr) == value) {
            return shorter;
        }
    }
    return buffer;
}

void Exposition::family(std::string const& name, std::string const& help, MetricType type) {
    m_text += "# HELP " + name + " " + escapeHelp(help) + "\n";
    m_text += "# TYPE " + name + " " + typeName(type) + "\n";
}

void Exposition::sample(std::string const& name, Labels const& labels, double value) {
    m_text += name + labelText(labels) + " " + sampleValue(value) + "\n";
}

void Exposition::histogram(std::string const& name, Labels const& labels,
                           HistogramSnapshot const& snapshot) {
    std::uint64_t cumulative = 0;
    for (std::size_t i = 0; i < snapshot.bounds.size(); ++i) {
        cumulative += i < snapshot.counts.size() ? snapshot.counts[i] : 0;
        Labels bucket = labels;
        bucket.emplace_back("le", sampleValue(snapshot.bounds[i]));
        sample(name + "_bucket", bucket, static_cast<double>(cumulative));
    }
    Labels all = labels;
    all.emplace_back("le", "+Inf");
    sample(name + "_bucket", all, static_cast<double>(snapshot.count));
    sample(name + "_sum", labels, snapshot.sum);
    sample(name + "_count", labels, static_cast<double>(snapshot.count));
}

}  // namespace tarsel::daemon
