#include "ServiceNotify.h"

#ifdef TARSEL_HAVE_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace tarsel::daemon {

namespace {

/* Without NOTIFY_SOCKET (not a Type=notify service) sd_notify() does nothing. */
void notify(std::string const& state) {
#ifdef TARSEL_HAVE_SYSTEMD
    sd_notify(0, state.c_str());
#else
    (void)state;
#endif
}

}  // namespace

void notifyReady(std::string const& status) {
    notify("READY=1\nSTATUS=" + status);
}

void notifyStopping() {
    notify("STOPPING=1");
}

}  // namespace tarsel::daemon
