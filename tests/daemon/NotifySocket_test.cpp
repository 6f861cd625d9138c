// The service manager's notification socket spoken without libsystemd: one
// datagram of exactly the state's bytes to the socket NOTIFY_SOCKET names,
// nothing without it, and failures returned rather than thrown.
#include <gtest/gtest.h>

#include <dirent.h>

#include <cstdlib>

#include "NotifyListener.h"
#include "NotifySocket.h"

namespace tarsel::daemon {
namespace {

using testing::NotifyListener;

constexpr int kWaitMs = 5000;

/* Descriptors this process has open. */
int openDescriptors() {
    int count = 0;
    if (DIR* const dir = ::opendir("/proc/self/fd")) {
        while (::readdir(dir) != nullptr) {
            ++count;
        }
        ::closedir(dir);
    }
    return count;
}

TEST(NotifySocketTest, SendsTheStateAsOneDatagramToTheSocketAtAPath) {
    NotifyListener const listener(NotifyListener::Kind::Path);
    ::setenv("NOTIFY_SOCKET", listener.address().c_str(), 1);
    NotifySocket const socket = NotifySocket::fromEnvironment();
    EXPECT_TRUE(socket.configured());
    EXPECT_EQ(socket.send("READY=1\nSTATUS=serving unit id 1 on 0.0.0.0:502"), "");
    EXPECT_EQ(listener.receive(kWaitMs), "READY=1\nSTATUS=serving unit id 1 on 0.0.0.0:502");
    EXPECT_EQ(listener.receive(0), std::nullopt);
}

TEST(NotifySocketTest, AnAtSignNamesASocketInTheAbstractNamespace) {
    NotifyListener const listener(NotifyListener::Kind::Abstract);
    ::setenv("NOTIFY_SOCKET", listener.address().c_str(), 1);
    EXPECT_EQ(NotifySocket::fromEnvironment().send("STOPPING=1"), "");
    EXPECT_EQ(listener.receive(kWaitMs), "STOPPING=1");
}

TEST(NotifySocketTest, EachStateIsADatagramOfItsOwn) {
    NotifyListener const listener(NotifyListener::Kind::Path);
    NotifySocket const socket(listener.address());
    EXPECT_EQ(socket.send("READY=1"), "");
    EXPECT_EQ(socket.send("STOPPING=1"), "");
    EXPECT_EQ(listener.receive(kWaitMs), "READY=1");
    EXPECT_EQ(listener.receive(kWaitMs), "STOPPING=1");
}

TEST(NotifySocketTest, WithoutNotifySocketNothingIsConfiguredAndSendingSucceedsQuietly) {
    ::unsetenv("NOTIFY_SOCKET");
    NotifySocket const socket = NotifySocket::fromEnvironment();
    EXPECT_FALSE(socket.configured());
    int const before = openDescriptors();
    EXPECT_EQ(socket.send("READY=1"), "");
    EXPECT_EQ(openDescriptors(), before);
}

TEST(NotifySocketTest, AnEmptyNotifySocketCountsAsUnset) {
    ::setenv("NOTIFY_SOCKET", "", 1);
    EXPECT_FALSE(NotifySocket::fromEnvironment().configured());
}

TEST(NotifySocketTest, ASocketNoOneListensOnIsAFailureReturnedNotThrown) {
    NotifyListener const listener(NotifyListener::Kind::Path);
    NotifySocket const socket(listener.directory() + "/nobody");
    std::string failure;
    EXPECT_NO_THROW(failure = socket.send("READY=1"));
    EXPECT_EQ(failure, "sendto: No such file or directory");
}

TEST(NotifySocketTest, AnAbstractNameNoOneListensOnIsAFailureReturnedNotThrown) {
    NotifySocket const socket("@/tarsel-notify-test/nobody-listens-here");
    std::string failure;
    EXPECT_NO_THROW(failure = socket.send("READY=1"));
    EXPECT_EQ(failure, "sendto: Connection refused");
}

TEST(NotifySocketTest, ARelativePathIsRefusedWithoutSending) {
    EXPECT_EQ(NotifySocket("run/notify").send("READY=1"),
              "\"run/notify\" is neither an absolute path nor an abstract name (@...)");
}

TEST(NotifySocketTest, AnAddressLongerThanASocketAddressIsRefused) {
    std::string const path = "/" + std::string(200, 'x');
    EXPECT_EQ(NotifySocket(path).send("READY=1"),
              "\"" + path + "\" is longer than a socket address can be");
}

TEST(NotifySocketTest, TheSocketIsClosedAfterEverySend) {
    NotifyListener const listener(NotifyListener::Kind::Path);
    NotifySocket const reachable(listener.address());
    NotifySocket const unreachable(listener.directory() + "/nobody");
    int const before = openDescriptors();
    EXPECT_EQ(reachable.send("READY=1"), "");
    EXPECT_NE(unreachable.send("READY=1"), "");
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace tarsel::daemon
