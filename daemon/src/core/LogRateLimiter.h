// Keeps repeated log events from flooding the log: each kind of event gets
// a few lines per window, the rest are counted and summarised in one line
// when the window ends ("... 1,200 more in the last minute").
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace tarsel::daemon {

class LogRateLimiter {
  public:
    using Clock = std::chrono::steady_clock;

    /* `burst` lines of each kind per `window`. */
    LogRateLimiter(std::size_t burst, Clock::duration window) : m_burst(burst), m_window(window) {}

    /* True when an event of this kind may be logged now; false when it is
     * only counted, and its text kept as the last one held back. `tag` is
     * the caller's (the log level), handed back with the summary. */
    bool admit(std::string const& kind, Clock::time_point now, int tag = 0,
               std::string const& text = {});

    struct Summary {
        std::string kind;
        unsigned long long suppressed;
        int tag;
        std::string last;  // the text of the last event held back
    };
    /* The kinds whose window has ended by now with events held back, each
     * once; their windows start again. */
    std::vector<Summary> takeEnded(Clock::time_point now);
    /* True while no kind has a window open: takeEnded() would find nothing. */
    bool idle() const { return m_windows.empty(); }

  private:
    struct Window {
        Clock::time_point start;
        std::size_t logged = 0;
        unsigned long long suppressed = 0;
        int tag = 0;
        std::string last;
    };

    std::size_t m_burst;
    Clock::duration m_window;
    std::map<std::string, Window> m_windows;
};

}  // namespace tarsel::daemon
