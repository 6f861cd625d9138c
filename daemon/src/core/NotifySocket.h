// The service manager's notification socket: a Type=notify unit says that it
// is ready or stopping by sending one datagram of "KEY=value" lines to the
// AF_UNIX socket that NOTIFY_SOCKET names. systemd keeps this protocol stable
// for services to speak themselves (sd_notify(3)), which spares the daemon
// libsystemd and the compression and crypto libraries it loads.
#pragma once

#include <string>

namespace tarsel::daemon {

class NotifySocket {
  public:
    /* The socket NOTIFY_SOCKET names; none when it is unset or empty (not
     * started as a Type=notify service). */
    static NotifySocket fromEnvironment();

    /* address: a path ("/run/systemd/notify") or, after "@", a name in the
     * abstract namespace; empty for none. */
    explicit NotifySocket(std::string address);

    bool configured() const { return !m_address.empty(); }
    std::string const& address() const { return m_address; }

    /* Sends state as one datagram on a socket of its own, closed before it
     * returns. Empty when it was sent or there is no socket to send to,
     * otherwise why it was not; never throws: the service runs on whether
     * or not its manager heard. */
    std::string send(std::string const& state) const;

  private:
    std::string m_address;
};

}  // namespace tarsel::daemon
