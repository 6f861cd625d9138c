// Answers that wait for an outcome: settled once, or by their bound with
// 0x0B; forgotten when never asked for, kept for no one when their client
// goes.
#include <gtest/gtest.h>

#include "DeferredReplies.h"

namespace tarsel::daemon {
namespace {

using namespace std::chrono_literals;
using Clock = DeferredReplies::Clock;

TEST(DeferredRepliesTest, ASettledAnswerIsTakenOnceWithItsCode) {
    DeferredReplies replies(5s);
    Clock::time_point const now{};
    auto const token = replies.open(now);
    EXPECT_FALSE(replies.settled(token));
    EXPECT_FALSE(replies.take(token));
    EXPECT_TRUE(replies.settle(token, 0x02));
    EXPECT_TRUE(replies.settled(token));
    EXPECT_EQ(replies.take(token), 0x02);
    EXPECT_FALSE(replies.take(token));
    EXPECT_EQ(replies.size(), 0u);
}

TEST(DeferredRepliesTest, AnAnswerPastItsBoundIsGatewayTargetFailedAndNotedOnce) {
    DeferredReplies replies(5s);
    Clock::time_point const now{};
    int notes = 0;
    auto const token = replies.open(now, [&] { ++notes; });
    replies.expire(now + 4999ms);
    EXPECT_FALSE(replies.settled(token));
    EXPECT_EQ(replies.nextDeadline(), now + 5s);
    replies.expire(now + 5s);
    replies.expire(now + 6s);
    EXPECT_EQ(notes, 1);
    EXPECT_FALSE(replies.settle(token, 0)) << "the outcome came too late for the answer";
    EXPECT_EQ(replies.take(token), 0x0B);
    EXPECT_FALSE(replies.nextDeadline());
}

TEST(DeferredRepliesTest, ADiscardedAnswerTakesNoOutcome) {
    DeferredReplies replies;
    auto const token = replies.open(Clock::now());
    replies.discard(token);
    EXPECT_FALSE(replies.settle(token, 0));
    EXPECT_FALSE(replies.take(token));
}

TEST(DeferredRepliesTest, AnOrphanedAnswerKeepsItsOutcomeButAnswersNoOne) {
    DeferredReplies replies;
    auto const token = replies.open(Clock::now());
    replies.orphan(token);
    EXPECT_FALSE(replies.settle(token, 0x04)) << "the outcome reached its client";
    EXPECT_TRUE(replies.settled(token));
    EXPECT_EQ(replies.take(token), 0x04);
    EXPECT_EQ(replies.size(), 0u);
}

TEST(DeferredRepliesTest, AnOrphanedAnswerPastItsBoundIsGatewayTargetFailedWithoutItsNote) {
    DeferredReplies replies(5s);
    Clock::time_point const now{};
    int notes = 0;
    auto const token = replies.open(now, [&] { ++notes; });
    replies.orphan(token);
    replies.expire(now + 5s);
    EXPECT_EQ(notes, 0) << "no one was answered 0x0B";
    EXPECT_EQ(replies.take(token), 0x0B);
    EXPECT_FALSE(replies.settle(token, 0));
}

TEST(DeferredRepliesTest, EveryAnswerHasItsOwnToken) {
    DeferredReplies replies;
    auto const first = replies.open(Clock::now());
    auto const second = replies.open(Clock::now());
    EXPECT_NE(first, second);
    replies.settle(second, 0x04);
    EXPECT_FALSE(replies.settled(first));
    EXPECT_EQ(replies.take(second), 0x04);
}

}  // namespace
}  // namespace tarsel::daemon
