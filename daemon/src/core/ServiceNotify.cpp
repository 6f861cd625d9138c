#include "ServiceNotify.h"

#include "Log.h"
#include "NotifySocket.h"

namespace tarsel::daemon {

namespace {

/* NOTIFY_SOCKET is read on every message, as the service manager's own
 * client library does: unset (not a Type=notify service), nothing is sent. */
void notify(std::string const& state, Log& log) {
    NotifySocket const socket = NotifySocket::fromEnvironment();
    std::string const failure = socket.send(state);
    if (!failure.empty()) {
        log.warning("cannot tell systemd " + state.substr(0, state.find('\n')) + " on " +
                    socket.address() + ": " + failure);
    }
}

}  // namespace

void notifyReady(std::string const& status, Log& log) {
    notify("READY=1\nSTATUS=" + status, log);
}

void notifyStopping(Log& log) {
    notify("STOPPING=1", log);
}

}  // namespace tarsel::daemon
