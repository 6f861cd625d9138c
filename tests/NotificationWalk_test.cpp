// The walk of a notification handler over the accessors of one id
// (src/cds/shared_subscription_registry.h): what it visits when accessors are
// destroyed during it, nested walks, and walks on two threads at once.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "cds/shared_subscription_registry.h"

namespace {

struct Member {
    int id = 0;
};

using Walk = modbus::shared_registry::Walk<Member>;

/* Steps two threads take in turn: each waits for the other's step by number. */
class Turns {
  public:
    void reach(int step) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_reached = step;
        m_changed.notify_all();
    }
    void awaitStep(int step) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_reached >= step; });
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_reached = 0;
};

TEST(NotificationWalkTest, VisitsEveryMemberOnceInAddressOrder) {
    std::vector<Member> members(3);
    Walk walk({&members[2], &members[0], &members[1]});
    std::vector<Member*> visited;
    walk.forEach([&](Member* member) { visited.push_back(member); });
    EXPECT_EQ(visited, (std::vector<Member*>{&members[0], &members[1], &members[2]}));
}

TEST(NotificationWalkTest, SkipsAMemberForgottenByAnEarlierVisit) {
    std::vector<Member> members(3);
    Walk walk({&members[0], &members[1], &members[2]});
    std::vector<Member*> visited;
    walk.forEach([&](Member* member) {
        visited.push_back(member);
        if (member == &members[0]) {
            Walk::forget(&members[1]);  // as its destructor does
        }
    });
    EXPECT_EQ(visited, (std::vector<Member*>{&members[0], &members[2]}));
    EXPECT_FALSE(walk.holds(&members[1]));
}

TEST(NotificationWalkTest, GoesOnAfterTheVisitedMemberForgetsItself) {
    std::vector<Member> members(2);
    Walk walk({&members[0], &members[1]});
    std::vector<Member*> visited;
    walk.forEach([&](Member* member) {
        visited.push_back(member);
        Walk::forget(member);
    });
    EXPECT_EQ(visited, (std::vector<Member*>{&members[0], &members[1]}));
}

TEST(NotificationWalkTest, AForgottenMemberLeavesEveryNestedWalk) {
    Member shared;
    Member outerOnly;
    Walk outer({&shared, &outerOnly});
    {
        Walk inner({&shared});
        Walk::forget(&shared);
        EXPECT_FALSE(inner.holds(&shared));
    }
    EXPECT_FALSE(outer.holds(&shared));
    EXPECT_TRUE(outer.holds(&outerOnly));
}

TEST(NotificationWalkTest, AWalkThatEndedNoLongerHearsOfDestructions) {
    Member member;
    Walk outer({&member});
    { Walk inner({}); }
    Walk::forget(&member);  // reaches the outer walk through the chain left behind
    EXPECT_FALSE(outer.holds(&member));
}

// Two handlers delivered on two threads at once: the first one's walk ends
// while the second one's is still under way. A destruction on the second
// thread must still reach that thread's walk, which a chain of walks shared
// by both threads would have lost with the first walk.
TEST(NotificationWalkTest, ADestructionReachesItsThreadsWalkWhileAnotherThreadsWalkEnds) {
    Member member;
    Turns turns;
    bool heldAfterForget = true;
    std::thread first([&] {
        Walk walk({&member});
        turns.reach(1);
        turns.awaitStep(2);
    });  // the first walk ends here, before the second thread's destruction
    std::thread second([&] {
        turns.awaitStep(1);
        Walk walk({&member});
        turns.reach(2);
        first.join();
        Walk::forget(&member);
        heldAfterForget = walk.holds(&member);
    });
    second.join();
    EXPECT_FALSE(heldAfterForget);
}

// The other way round: a destruction on a thread with no walk of its own
// leaves another thread's walk alone (it was never that walk's member to lose).
TEST(NotificationWalkTest, ADestructionOnAThreadWithoutAWalkLeavesOtherThreadsWalksAlone) {
    Member member;
    Walk walk({&member});
    std::thread([&] { Walk::forget(&member); }).join();
    EXPECT_TRUE(walk.holds(&member));
}

}  // namespace
