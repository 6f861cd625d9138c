// The host store's list of open subscriptions (platform/host/src).
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "open_subscriptions.h"

namespace {

using cdshost::Id;
using cdshost::OpenSubscriptions;
using Pointer = std::shared_ptr<int>;

std::vector<int> contents(OpenSubscriptions<Pointer> const& open) {
    std::vector<int> values;
    open.forEach([&](Pointer const& p) { values.push_back(*p); });
    return values;
}

TEST(OpenSubscriptionsTest, FindsEachByIdAndListsThemInOpeningOrder) {
    OpenSubscriptions<Pointer> open;
    open.add(3, std::make_shared<int>(30));
    open.add(7, std::make_shared<int>(70));
    open.add(8, std::make_shared<int>(80));
    ASSERT_NE(open.find(7), nullptr);
    EXPECT_EQ(**open.find(7), 70);
    EXPECT_EQ(open.find(4), nullptr);
    EXPECT_EQ(open.find(9), nullptr);
    EXPECT_EQ(open.size(), 3u);
    EXPECT_EQ(contents(open), (std::vector<int>{30, 70, 80}));
}

TEST(OpenSubscriptionsTest, AnEndedIdIsGoneAndEndingItAgainFails) {
    OpenSubscriptions<Pointer> open;
    open.add(1, std::make_shared<int>(10));
    open.add(2, std::make_shared<int>(20));
    open.add(3, std::make_shared<int>(30));
    EXPECT_TRUE(open.erase(2));
    EXPECT_FALSE(open.erase(2));
    EXPECT_FALSE(open.erase(5));
    EXPECT_EQ(open.find(2), nullptr);
    EXPECT_EQ(open.size(), 2u);
    EXPECT_EQ(contents(open), (std::vector<int>{10, 30}));
}

TEST(OpenSubscriptionsTest, EndingMostInTheMiddleKeepsTheRestInOrderAndFindable) {
    // Far more ended than open, in an order that leaves empty slots in the
    // middle: the empty slots are dropped on the way without losing any.
    OpenSubscriptions<Pointer> open;
    for (Id id = 1; id <= 1000; ++id) {
        open.add(id, std::make_shared<int>(static_cast<int>(id)));
    }
    std::vector<int> kept;
    for (Id id = 1; id <= 1000; ++id) {
        if (id % 97 == 0) {
            kept.push_back(static_cast<int>(id));
        }
    }
    for (Id id = 2; id <= 1000; id += 2) {
        if (id % 97 != 0) {
            EXPECT_TRUE(open.erase(id));
        }
    }
    for (Id id = 999; id <= 1000; id -= 2) {  // down to 1: the last step wraps past 1000
        if (id % 97 != 0) {
            EXPECT_TRUE(open.erase(id));
        }
    }
    EXPECT_EQ(open.size(), kept.size());
    EXPECT_EQ(contents(open), kept);
    for (int const id : kept) {
        ASSERT_NE(open.find(static_cast<Id>(id)), nullptr);
        EXPECT_EQ(**open.find(static_cast<Id>(id)), id);
    }
    open.add(1001, std::make_shared<int>(1001));
    EXPECT_EQ(**open.find(1001), 1001);
}

TEST(OpenSubscriptionsTest, EndingReleasesTheSubscription) {
    OpenSubscriptions<Pointer> open;
    auto const subscription = std::make_shared<int>(1);
    open.add(1, subscription);
    open.add(2, std::make_shared<int>(2));
    EXPECT_EQ(subscription.use_count(), 2);
    open.erase(1);
    EXPECT_EQ(subscription.use_count(), 1);
}

TEST(OpenSubscriptionsTest, ClearEndsEverything) {
    OpenSubscriptions<Pointer> open;
    open.add(1, std::make_shared<int>(1));
    open.add(2, std::make_shared<int>(2));
    open.clear();
    EXPECT_EQ(open.size(), 0u);
    EXPECT_EQ(open.find(1), nullptr);
    EXPECT_TRUE(contents(open).empty());
}

}  // namespace
