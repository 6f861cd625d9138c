// The daemon's log: one line per event on a stream (stderr in the program).
// Every line is escaped (no line breaks, no terminal escapes inside one),
// and events a client can repeat at will are rate-limited per kind. Under
// systemd the lines carry their priority for journald instead of the
// program's name, which the journal records by itself.
#pragma once

#include <chrono>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "LogRateLimiter.h"

namespace tarsel::daemon {

class Log {
  public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;
    enum class Level { Debug, Info, Warning, Error };
    /* Plain: "tarsel-modbusd: warning: text". Journal: "<4>warning: text",
     * the priority of sd-daemon(3) first (<3> error, <4> warning, <6> info,
     * <7> debug), for journald to read and strip. Neither has a timestamp:
     * the journal, or whatever collects stderr, stamps each line. */
    enum class Format { Plain, Journal };

    // Lines of one kind per minute before the rest are only counted.
    static constexpr std::size_t kBurstPerMinute = 10;

    explicit Log(
        std::ostream& out, bool verbose = false,
        Clock clock = [] { return std::chrono::steady_clock::now(); });

    void info(std::string const& text) { write(Level::Info, text); }
    void warning(std::string const& text) { write(Level::Warning, text); }
    void error(std::string const& text) { write(Level::Error, text); }
    /* Text of the daemon's own or the library's with line breaks (the
     * description, the not-available message): one line each. */
    void lines(Level level, std::string const& text);
    /* Written only in verbose mode. */
    void debug(std::string const& text);

    /* An event a client can cause as often as it likes: at most
     * kBurstPerMinute lines of this kind a minute, then one summary line
     * when the minute ends, with the count and the last line held back. Debug lines are never
     * limited (verbose mode is for looking closely). */
    void limited(Level level, std::string const& kind, std::string const& text);
    /* Writes the summary of every kind whose minute has ended. */
    void summarise();

    bool verbose() const { return m_verbose; }
    void setFormat(Format format) { m_format = format; }

  private:
    void write(Level level, std::string const& text);

    std::ostream& m_out;
    bool m_verbose;
    Format m_format = Format::Plain;
    Clock m_clock;
    LogRateLimiter m_limiter;
};

/* Whether JOURNAL_STREAM's value ("DEVICE:INODE", set by systemd for a
 * service whose output goes to the journal) names the file of descriptor fd.
 * A program started from such a service with its stderr elsewhere inherits
 * the variable, so the variable alone does not say it. */
bool isJournalStream(char const* journalStream, int fd);

/* "[0x4148 0x0000]", for logs and the description. */
std::string hexWords(std::vector<unsigned short> const& words);

}  // namespace tarsel::daemon
