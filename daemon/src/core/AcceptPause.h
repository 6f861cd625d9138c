// A listener is left alone for a moment when the process or the system is out
// of descriptors: the connection waiting stays queued and the listener stays
// readable until a descriptor frees up, so polling it meanwhile would spin the
// loop at full speed.
#pragma once

#include <cerrno>
#include <chrono>
#include <optional>

namespace tarsel::daemon {

class AcceptPause {
  public:
    using Clock = std::chrono::steady_clock;
    // Long enough to cost nothing, short enough for a queued client to be
    // served well within its connect timeout once a descriptor is free.
    static constexpr std::chrono::milliseconds kLength{200};

    /* True for the accept() errors that only time can cure. */
    static bool isExhaustion(int error) {
        return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
    }

    void start(Clock::time_point now) { m_until = now + kLength; }
    /* Ends the pause once its time is over. */
    void update(Clock::time_point now) {
        if (m_until && now >= *m_until) {
            m_until.reset();
        }
    }
    bool active() const { return m_until.has_value(); }
    /* When the loop must wake up to listen again; nothing while listening. */
    std::optional<Clock::time_point> due() const { return m_until; }

  private:
    std::optional<Clock::time_point> m_until;
};

}  // namespace tarsel::daemon
