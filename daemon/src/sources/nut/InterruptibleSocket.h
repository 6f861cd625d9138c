// The socket of a connection to upsd as another thread may shut it down: the
// poller's watchdog, or a stop, ends a round trip that outlives its bound by
// shutting the socket down under the client library's feet, whose wait for
// the next piece of an answer then ends at once with the connection closed.
//
// An interrupt that comes while no socket is attached (the connection is
// still being made) holds for the next socket attached, until reset() or
// takeInterruption(). A socket is detached before its owner closes it, so
// that one that took over its number is never shut down.
#pragma once

#include <mutex>

namespace tarsel::daemon::nut {

class InterruptibleSocket {
  public:
    /* Any thread: shuts the attached socket down, if any. */
    void interrupt();
    /* Whether interrupt() came since the last reset() or take. */
    bool interrupted() const;
    /* interrupted(), and forgets it. */
    bool takeInterruption();
    /* Forgets an interrupt: a new run begins. */
    void reset();

    /* The owner's thread: `socket` is the connection's from now on (shut
     * down at once when an interrupt holds). */
    void attach(int socket);
    /* The owner's thread, before it closes the socket. */
    void detach();

    /* Attaches a socket for as long as it lives. */
    class Use {
      public:
        Use(InterruptibleSocket& owner, int socket) : m_owner(owner) { m_owner.attach(socket); }
        ~Use() { m_owner.detach(); }
        Use(Use const&) = delete;
        Use& operator=(Use const&) = delete;

      private:
        InterruptibleSocket& m_owner;
    };

  private:
    mutable std::mutex m_mutex;
    int m_socket = -1;
    bool m_interrupted = false;
};

}  // namespace tarsel::daemon::nut
