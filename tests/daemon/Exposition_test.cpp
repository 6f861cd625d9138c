// The Prometheus text format as we write it.
#include <gtest/gtest.h>

#include <limits>

#include "Exposition.h"

namespace tarsel::daemon {
namespace {

TEST(ExpositionTest, HelpTextsEscapeBackslashesAndNewlinesButNotQuotes) {
    EXPECT_EQ(escapeHelp("a\\b\nc\"d"), "a\\\\b\\nc\"d");
}

TEST(ExpositionTest, LabelValuesEscapeBackslashesQuotesAndNewlines) {
    EXPECT_EQ(escapeLabelValue("a\\b\nc\"d"), "a\\\\b\\nc\\\"d");
    EXPECT_EQ(escapeLabelValue("plain"), "plain");
}

TEST(ExpositionTest, ValuesAreIntegersWhenWholeAndShortestDecimalsOtherwise) {
    EXPECT_EQ(sampleValue(0), "0");
    EXPECT_EQ(sampleValue(18446744073709.0), "18446744073709");
    EXPECT_EQ(sampleValue(-3), "-3");
    EXPECT_EQ(sampleValue(0.005), "0.005");
    EXPECT_EQ(sampleValue(2.5), "2.5");
    EXPECT_EQ(sampleValue(0.1 + 0.2), "0.30000000000000004");
    EXPECT_EQ(sampleValue(1e300), "1e+300");
}

TEST(ExpositionTest, InfinitiesAndNanAreSpelledAsTheFormatWants) {
    EXPECT_EQ(sampleValue(std::numeric_limits<double>::infinity()), "+Inf");
    EXPECT_EQ(sampleValue(-std::numeric_limits<double>::infinity()), "-Inf");
    EXPECT_EQ(sampleValue(std::numeric_limits<double>::quiet_NaN()), "NaN");
}

TEST(ExpositionTest, AFamilyHasHelpAndTypeLinesThenItsSamples) {
    Exposition out;
    out.family("x_total", "Things\ncounted", MetricType::Counter);
    out.sample("x_total", {{"function", "3"}, {"code", "a\"b"}}, 7);
    out.sample("x_total", 1);
    out.family("y", "A gauge", MetricType::Gauge);
    out.sample("y", {}, 0.5);
    EXPECT_EQ(out.text(),
              "# HELP x_total Things\\ncounted\n"
              "# TYPE x_total counter\n"
              "x_total{function=\"3\",code=\"a\\\"b\"} 7\n"
              "x_total 1\n"
              "# HELP y A gauge\n"
              "# TYPE y gauge\n"
              "y 0.5\n");
}

TEST(ExpositionTest, HistogramBucketsAreCumulativeEndWithInfAndCarrySumAndCount) {
    Histogram histogram({0.125, 1.0});
    histogram.observe(0.0625);
    histogram.observe(0.125);  // a bound belongs to its own bucket ("le")
    histogram.observe(0.5);
    histogram.observe(7.0);  // above every bound: +Inf only
    Exposition out;
    out.family("d_seconds", "Durations", MetricType::Histogram);
    out.histogram("d_seconds", {{"ups", "a"}}, histogram.snapshot());
    EXPECT_EQ(out.text(),
              "# HELP d_seconds Durations\n"
              "# TYPE d_seconds histogram\n"
              "d_seconds_bucket{ups=\"a\",le=\"0.125\"} 2\n"
              "d_seconds_bucket{ups=\"a\",le=\"1\"} 3\n"
              "d_seconds_bucket{ups=\"a\",le=\"+Inf\"} 4\n"
              "d_seconds_sum{ups=\"a\"} 7.6875\n"
              "d_seconds_count{ups=\"a\"} 4\n");
}

}  // namespace
}  // namespace tarsel::daemon
