// Tells systemd how the service is doing (sd_notify(3)) when it runs as a
// Type=notify unit; does nothing otherwise, or when built without libsystemd.
#pragma once

#include <string>

namespace tarsel::daemon {

/* Every listener listens: systemd may start the units ordered after this
 * one. status is shown by systemctl status. */
void notifyReady(std::string const& status);

/* The daemon is stopping of its own accord or on a signal. */
void notifyStopping();

}  // namespace tarsel::daemon
