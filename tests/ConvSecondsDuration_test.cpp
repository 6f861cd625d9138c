// conv::SecondsDuration: a non-negative count of seconds whose subtraction
// stops at zero.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "conv/seconds_duration.h"

namespace {

using conv::SecondsDuration;

TEST(ConvSecondsDurationTest, DefaultIsZero) {
    EXPECT_EQ(SecondsDuration().count(), 0u);
}

TEST(ConvSecondsDurationTest, CountIsTheSecondsGiven) {
    EXPECT_EQ(SecondsDuration(5).count(), 5u);
}

TEST(ConvSecondsDurationTest, SubtractingLessLeavesTheDifference) {
    SecondsDuration d(5);
    d -= SecondsDuration(2);
    EXPECT_EQ(d.count(), 3u);
}

TEST(ConvSecondsDurationTest, SubtractingAllGivesZero) {
    SecondsDuration d(3);
    d -= SecondsDuration(3);
    EXPECT_EQ(d, SecondsDuration(0));
}

TEST(ConvSecondsDurationTest, SubtractingMoreStopsAtZero) {
    SecondsDuration d(1);
    d -= SecondsDuration(2);
    EXPECT_EQ(d.count(), 0u);
    d -= SecondsDuration(1);
    EXPECT_EQ(d.count(), 0u);
}

TEST(ConvSecondsDurationTest, SubtractingTheLargestDurationFromZeroStaysZero) {
    SecondsDuration d;
    d -= SecondsDuration(std::numeric_limits<std::uint32_t>::max());
    EXPECT_EQ(d.count(), 0u);
}

TEST(ConvSecondsDurationTest, OneSecondStepsCountDownToZero) {
    // The way a polling loop uses it: one second off per round until nothing is left.
    SecondsDuration d(3);
    int rounds = 0;
    while (d != SecondsDuration(0)) {
        d -= SecondsDuration(1);
        ++rounds;
    }
    EXPECT_EQ(rounds, 3);
}

TEST(ConvSecondsDurationTest, SubtractionReturnsTheDurationItself) {
    SecondsDuration d(10);
    (d -= SecondsDuration(3)) -= SecondsDuration(4);
    EXPECT_EQ(d.count(), 3u);
}

TEST(ConvSecondsDurationTest, UsableInConstantExpressions) {
    constexpr SecondsDuration d = [] {
        SecondsDuration x(2);
        x -= SecondsDuration(5);
        return x;
    }();
    static_assert(d.count() == 0, "subtraction stops at zero at compile time too");
    EXPECT_EQ(d.count(), 0u);
}

}  // namespace
