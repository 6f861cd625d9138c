// Tells systemd how the service is doing when it runs as a Type=notify unit
// (through NotifySocket); does nothing otherwise.
#pragma once

#include <string>

namespace tarsel::daemon {

class Log;

/* Every listener listens: systemd may start the units ordered after this
 * one. status is shown by systemctl status. A message that cannot be sent
 * is logged as a warning; the daemon serves on. */
void notifyReady(std::string const& status, Log& log);

/* The daemon is stopping of its own accord or on a signal. */
void notifyStopping(Log& log);

}  // namespace tarsel::daemon
