// Every write a client attempts, one line each, in a file of its own. The
// daemon's log limits how much a client can make it write; an audit trail
// must not lose a write, so it goes where it can be kept and rotated apart
// from the log.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "Descriptor.h"

namespace tarsel::daemon {

class Log;

class AuditTrail {
  public:
    using Clock = std::function<std::chrono::system_clock::time_point()>;

    /* Opens (appends to) the file; std::runtime_error naming it when it
     * cannot be opened. What goes wrong later goes to `log`. */
    AuditTrail(
        std::string path, Log& log, Clock clock = [] { return std::chrono::system_clock::now(); });

    /* Why the file could not be opened for appending, in the words the
     * constructor would throw, found without opening or creating it (what
     * --check asks: a trail it created as root could not be written by the
     * service's user afterwards); nothing when it could be opened. */
    static std::optional<std::string> whyNotOpenable(std::string const& path);

    /* One line: the UTC time, then the text with its control characters
     * escaped; written through at once, so a crash loses nothing. A trail
     * renamed or removed since the last record (rotated) is created afresh
     * first. A record that cannot be written (a full disk) is logged as an
     * error with its text instead, and the next one is tried again. */
    void record(std::string const& text);

  private:
    /* Opens the file at the path again when it is no longer the one written. */
    void followRotation();
    /* Appends the whole line; the system's reason when it could not. */
    std::optional<std::string> append(std::string const& line);

    std::string m_path;
    Log& m_log;
    Clock m_clock;
    std::optional<Descriptor> m_file;
    // The last line was written in part (the disk filled up under it): the
    // next one starts with a line break, so it never continues that line.
    bool m_torn = false;
    unsigned long long m_lost = 0;  // records not written since the last one that was
};

}  // namespace tarsel::daemon
