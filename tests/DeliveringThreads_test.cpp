// The host store's record of the threads inside a subscription's callback
// (platform/host/src).
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "delivering_threads.h"

namespace {

using cdshost::DeliveringThreads;

std::thread::id otherThread() {
    std::thread::id id;
    std::thread([&] { id = std::this_thread::get_id(); }).join();
    return id;
}

TEST(DeliveringThreadsTest, NobodyInsideAtFirst) {
    DeliveringThreads threads;
    EXPECT_FALSE(threads.anyOtherThan(std::this_thread::get_id()));
}

TEST(DeliveringThreadsTest, TheCallingThreadIsNeverAnOtherOne) {
    DeliveringThreads threads;
    auto const me = std::this_thread::get_id();
    threads.enter(me);
    threads.enter(me);  // a nested delivery on the same thread
    EXPECT_FALSE(threads.anyOtherThan(me));
    EXPECT_TRUE(threads.anyOtherThan(otherThread()));
}

TEST(DeliveringThreadsTest, EachEnterIsUndoneByOneLeave) {
    DeliveringThreads threads;
    auto const me = std::this_thread::get_id();
    auto const other = otherThread();
    threads.enter(other);
    threads.enter(other);
    threads.leave(other);
    EXPECT_TRUE(threads.anyOtherThan(me));
    threads.leave(other);
    EXPECT_FALSE(threads.anyOtherThan(me));
}

TEST(DeliveringThreadsTest, SeveralThreadsInsideAtOnceInAnyOrder) {
    DeliveringThreads threads;
    auto const me = std::this_thread::get_id();
    auto const first = otherThread();
    auto const second = otherThread();
    threads.enter(me);
    threads.enter(first);
    threads.enter(second);
    threads.leave(me);  // the one kept in place leaves first
    EXPECT_TRUE(threads.anyOtherThan(me));
    threads.leave(first);
    EXPECT_TRUE(threads.anyOtherThan(me));
    EXPECT_FALSE(threads.anyOtherThan(second));
    threads.enter(me);  // takes the free place again
    EXPECT_TRUE(threads.anyOtherThan(me));
    threads.leave(second);
    EXPECT_FALSE(threads.anyOtherThan(me));
    threads.leave(me);
    EXPECT_FALSE(threads.anyOtherThan(first));
}

TEST(DeliveringThreadsTest, HasEachThreadInsideUntilItsLastLeave) {
    DeliveringThreads threads;
    auto const me = std::this_thread::get_id();
    auto const other = otherThread();
    EXPECT_FALSE(threads.has(me));
    threads.enter(me);
    threads.enter(other);
    threads.enter(other);
    EXPECT_TRUE(threads.has(me));
    EXPECT_TRUE(threads.has(other));
    threads.leave(other);
    EXPECT_TRUE(threads.has(other));
    threads.leave(other);
    threads.leave(me);
    EXPECT_FALSE(threads.has(me));
    EXPECT_FALSE(threads.has(other));
}

TEST(DeliveringThreadsTest, ListsEveryThreadInsideButTheOneGiven) {
    DeliveringThreads threads;
    auto const me = std::this_thread::get_id();
    auto const other = otherThread();
    threads.enter(me);     // kept in place
    threads.enter(other);  // in the list beside it
    std::vector<std::thread::id> listed;
    threads.forEachOtherThan(me, [&](std::thread::id thread) { listed.push_back(thread); });
    EXPECT_EQ(listed, (std::vector<std::thread::id>{other}));
    listed.clear();
    threads.forEachOtherThan(other, [&](std::thread::id thread) { listed.push_back(thread); });
    EXPECT_EQ(listed, (std::vector<std::thread::id>{me}));
}

}  // namespace
