#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "sources/nut/InterruptibleSocket.h"

namespace {

using tarsel::daemon::nut::InterruptibleSocket;

/* Two connected sockets, closed at the end of the test. */
class SocketPair {
  public:
    SocketPair() {
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, m_ends) != 0) {
            ADD_FAILURE() << "socketpair failed";
        }
    }
    ~SocketPair() {
        ::close(m_ends[0]);
        ::close(m_ends[1]);
    }
    SocketPair(SocketPair const&) = delete;
    SocketPair& operator=(SocketPair const&) = delete;

    int ours() const { return m_ends[0]; }
    int theirs() const { return m_ends[1]; }

  private:
    int m_ends[2] = {-1, -1};
};

/* A shut-down socket reads its end of stream at once; an open one with
 * nothing to read would block. */
bool isShutDown(int socket) {
    char byte = 0;
    ssize_t const got = ::recv(socket, &byte, 1, MSG_DONTWAIT);
    return got == 0;
}

TEST(InterruptibleSocketTest, AnInterruptShutsTheAttachedSocketDown) {
    SocketPair pair;
    InterruptibleSocket socket;
    socket.attach(pair.ours());
    ASSERT_FALSE(isShutDown(pair.ours()));

    socket.interrupt();

    EXPECT_TRUE(isShutDown(pair.ours()));
    EXPECT_TRUE(socket.interrupted());
}

TEST(InterruptibleSocketTest, AnInterruptWhileNoSocketIsAttachedHoldsForTheNextOne) {
    SocketPair pair;
    InterruptibleSocket socket;

    socket.interrupt();
    socket.attach(pair.ours());

    EXPECT_TRUE(isShutDown(pair.ours()));
}

TEST(InterruptibleSocketTest, AResetInterruptIsForgottenAndLeavesTheNextSocketOpen) {
    SocketPair pair;
    InterruptibleSocket socket;
    socket.interrupt();

    socket.reset();
    socket.attach(pair.ours());

    EXPECT_FALSE(socket.interrupted());
    EXPECT_FALSE(isShutDown(pair.ours()));
}

TEST(InterruptibleSocketTest, TakingAnInterruptionReportsItOnceAndForgetsIt) {
    SocketPair pair;
    InterruptibleSocket socket;
    socket.attach(pair.ours());
    EXPECT_FALSE(socket.takeInterruption());

    socket.interrupt();

    EXPECT_TRUE(socket.takeInterruption());
    EXPECT_FALSE(socket.takeInterruption());
}

TEST(InterruptibleSocketTest, ADetachedSocketIsNeverShutDown) {
    SocketPair pair;
    InterruptibleSocket socket;
    socket.attach(pair.ours());
    socket.detach();

    // Its owner may have closed it, and another connection taken its number.
    socket.interrupt();

    EXPECT_FALSE(isShutDown(pair.ours()));
}

TEST(InterruptibleSocketTest, AUseAttachesTheSocketForItsLifetimeOnly) {
    SocketPair interrupted;
    SocketPair ended;
    InterruptibleSocket socket;
    {
        InterruptibleSocket::Use const use(socket, interrupted.ours());
        socket.interrupt();
        EXPECT_TRUE(isShutDown(interrupted.ours()));
    }
    socket.reset();
    { InterruptibleSocket::Use const use(socket, ended.ours()); }

    socket.interrupt();

    EXPECT_FALSE(isShutDown(ended.ours()));
}

TEST(InterruptibleSocketTest, AnInterruptFromAnotherThreadEndsAWaitForTheAnswer) {
    SocketPair pair;
    InterruptibleSocket socket;
    socket.attach(pair.ours());
    auto waiting = std::async(std::launch::async, [&pair] {
        char byte = 0;
        return ::recv(pair.ours(), &byte, 1, 0);  // nothing ever comes from the peer
    });
    ASSERT_EQ(waiting.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);

    socket.interrupt();

    ASSERT_EQ(waiting.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(waiting.get(), 0);
}

}  // namespace
