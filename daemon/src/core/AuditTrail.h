// Every write a client attempts, one line each, in a file of its own. The
// daemon's log limits how much a client can make it write; an audit trail
// must not lose a write, so it goes where it can be kept and rotated apart
// from the log.
#pragma once

#include <chrono>
#include <fstream>
#include <functional>
#include <optional>
#include <string>

namespace tarsel::daemon {

class AuditTrail {
  public:
    using Clock = std::function<std::chrono::system_clock::time_point()>;

    /* Opens (appends to) the file; std::runtime_error naming it when it
     * cannot be opened. */
    explicit AuditTrail(
        std::string const& path, Clock clock = [] { return std::chrono::system_clock::now(); });

    /* Why the file could not be opened for appending, in the words the
     * constructor would throw, found without opening or creating it (what
     * --check asks: a trail it created as root could not be written by the
     * service's user afterwards); nothing when it could be opened. */
    static std::optional<std::string> whyNotOpenable(std::string const& path);

    /* One line: the UTC time, then the text with its control characters
     * escaped; written through at once, so a crash loses nothing. */
    void record(std::string const& text);

  private:
    std::ofstream m_out;
    Clock m_clock;
};

}  // namespace tarsel::daemon
