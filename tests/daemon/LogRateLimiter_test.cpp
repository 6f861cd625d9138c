// The rate limit of repeated log events, on a clock the test moves.
#include <gtest/gtest.h>

#include "LogRateLimiter.h"

namespace tarsel::daemon {
namespace {

using namespace std::chrono_literals;
using Clock = LogRateLimiter::Clock;

TEST(LogRateLimiterTest, AdmitsTheBurstOfEachKindThenCountsTheRest) {
    LogRateLimiter limiter(3, 60s);
    Clock::time_point const t0{};
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(limiter.admit("refused", t0 + i * 1s));
    }
    EXPECT_FALSE(limiter.admit("refused", t0 + 4s));
    EXPECT_TRUE(limiter.admit("idle", t0 + 4s));       // another kind has its own burst
    EXPECT_TRUE(limiter.takeEnded(t0 + 59s).empty());  // the minute is not over yet
}

TEST(LogRateLimiterTest, SummarisesWhatWasHeldBackOnceTheWindowEnds) {
    LogRateLimiter limiter(2, 60s);
    Clock::time_point const t0{};
    for (int i = 0; i < 1202; ++i) {
        limiter.admit("refused", t0 + 1ms * i, 3, "event " + std::to_string(i));
    }
    auto const ended = limiter.takeEnded(t0 + 60s);
    ASSERT_EQ(ended.size(), 1u);
    EXPECT_EQ(ended[0].kind, "refused");
    EXPECT_EQ(ended[0].suppressed, 1200u);
    EXPECT_EQ(ended[0].tag, 3);
    EXPECT_EQ(ended[0].last, "event 1201");
    EXPECT_TRUE(limiter.takeEnded(t0 + 61s).empty());  // told once
}

TEST(LogRateLimiterTest, ASteadyFloodCostsOneSummaryPerWindow) {
    LogRateLimiter limiter(2, 60s);
    Clock::time_point t{};
    int admitted = 0;
    int summaries = 0;
    for (int second = 0; second < 300; ++second, t += 1s) {
        for (int i = 0; i < 10; ++i) {
            admitted += limiter.admit("refused", t) ? 1 : 0;
        }
        summaries += static_cast<int>(limiter.takeEnded(t).size());
    }
    EXPECT_EQ(admitted, 2);  // the first burst only
    EXPECT_EQ(summaries, 4);
}

TEST(LogRateLimiterTest, AKindQuietForAWindowGetsItsBurstBack) {
    LogRateLimiter limiter(1, 60s);
    Clock::time_point const t0{};
    EXPECT_TRUE(limiter.admit("refused", t0));
    EXPECT_FALSE(limiter.admit("refused", t0 + 1s));
    EXPECT_EQ(limiter.takeEnded(t0 + 60s).size(), 1u);
    EXPECT_TRUE(limiter.takeEnded(t0 + 121s).empty());  // a quiet window: forgotten
    EXPECT_TRUE(limiter.admit("refused", t0 + 122s));
}

}  // namespace
}  // namespace tarsel::daemon
