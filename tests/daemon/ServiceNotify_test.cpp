// Readiness and stopping as the daemon reports them to systemd, and a
// manager that cannot be told costing one warning, never the daemon.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "Log.h"
#include "NotifyListener.h"
#include "ServiceNotify.h"

namespace tarsel::daemon {
namespace {

using testing::NotifyListener;

constexpr int kWaitMs = 5000;

TEST(ServiceNotifyTest, ReadyCarriesTheStatusLineInTheSameDatagram) {
    NotifyListener const listener(NotifyListener::Kind::Path);
    ::setenv("NOTIFY_SOCKET", listener.address().c_str(), 1);
    std::ostringstream out;
    Log log(out);
    notifyReady("serving unit id 1 on 127.0.0.1:1502", log);
    EXPECT_EQ(listener.receive(kWaitMs), "READY=1\nSTATUS=serving unit id 1 on 127.0.0.1:1502");
    EXPECT_EQ(out.str(), "");
}

TEST(ServiceNotifyTest, StoppingIsSentToAnAbstractSocket) {
    NotifyListener const listener(NotifyListener::Kind::Abstract);
    ::setenv("NOTIFY_SOCKET", listener.address().c_str(), 1);
    std::ostringstream out;
    Log log(out);
    notifyStopping(log);
    EXPECT_EQ(listener.receive(kWaitMs), "STOPPING=1");
    EXPECT_EQ(out.str(), "");
}

TEST(ServiceNotifyTest, WithoutNotifySocketNothingIsSentOrLogged) {
    NotifyListener const listener(NotifyListener::Kind::Path);
    ::unsetenv("NOTIFY_SOCKET");
    std::ostringstream out;
    Log log(out);
    notifyReady("serving", log);
    notifyStopping(log);
    EXPECT_EQ(listener.receive(200), std::nullopt);
    EXPECT_EQ(out.str(), "");
}

TEST(ServiceNotifyTest, AManagerThatCannotBeToldCostsOneWarningAndNoException) {
    NotifyListener const listener(NotifyListener::Kind::Path);
    std::string const nobody = listener.directory() + "/nobody";
    ::setenv("NOTIFY_SOCKET", nobody.c_str(), 1);
    std::ostringstream out;
    Log log(out);
    EXPECT_NO_THROW(notifyReady("serving", log));
    EXPECT_EQ(out.str(), "tarsel-modbusd: warning: cannot tell systemd READY=1 on " + nobody +
                             ": sendto: No such file or directory\n");
}

}  // namespace
}  // namespace tarsel::daemon
