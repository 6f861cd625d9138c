#include "LogRateLimiter.h"

namespace tarsel::daemon {

bool LogRateLimiter::admit(std::string const& kind, Clock::time_point now, int tag,
                           std::string const& text) {
    auto found = m_windows.find(kind);
    if (found == m_windows.end()) {
        found = m_windows.emplace(kind, Window{now, 0, 0, 0, {}}).first;
    }
    Window& window = found->second;
    if (now - window.start >= m_window && window.suppressed == 0) {
        window = Window{now, 0, 0, 0, {}};  // a quiet window ended: start afresh
    }
    if (window.logged < m_burst) {
        ++window.logged;
        return true;
    }
    ++window.suppressed;
    window.tag = tag;
    window.last = text;
    return false;
}

std::vector<LogRateLimiter::Summary> LogRateLimiter::takeEnded(Clock::time_point now) {
    std::vector<Summary> ended;
    for (auto it = m_windows.begin(); it != m_windows.end();) {
        Window& window = it->second;
        if (now - window.start < m_window) {
            ++it;
        } else if (window.suppressed > 0) {
            ended.push_back({it->first, window.suppressed, window.tag, window.last});
            // Still busy: the next window counts from here, and its lines are
            // held back too until it ends, so a steady flood costs one line
            // per window.
            window = Window{now, m_burst, 0, 0, {}};
            ++it;
        } else {
            it = m_windows.erase(it);  // quiet: forget the kind
        }
    }
    return ended;
}

}  // namespace tarsel::daemon
