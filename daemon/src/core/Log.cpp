#include "Log.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <ostream>

#include "LogText.h"

namespace tarsel::daemon {

namespace {

char const* prefix(Log::Level level) {
    switch (level) {
        case Log::Level::Debug:
            return "debug: ";
        case Log::Level::Warning:
            return "warning: ";
        case Log::Level::Error:
            return "error: ";
        case Log::Level::Info:
            break;
    }
    return "";
}

/* The priority of sd-daemon(3) for journald. */
char const* priority(Log::Level level) {
    switch (level) {
        case Log::Level::Debug:
            return "<7>";
        case Log::Level::Warning:
            return "<4>";
        case Log::Level::Error:
            return "<3>";
        case Log::Level::Info:
            break;
    }
    return "<6>";
}

}  // namespace

Log::Log(std::ostream& out, bool verbose, Clock clock)
    : m_out(out),
      m_verbose(verbose),
      m_clock(std::move(clock)),
      m_limiter(kBurstPerMinute, std::chrono::minutes(1)) {}

void Log::debug(std::string const& text) {
    if (m_verbose) {
        write(Level::Debug, text);
    }
}

void Log::limited(Level level, std::string const& kind, std::string const& text) {
    if (level == Level::Debug) {
        debug(text);
        return;
    }
    summarise();
    if (m_limiter.admit(kind, m_clock(), static_cast<int>(level), text)) {
        write(level, text);
    }
}

void Log::summarise() {
    // Called on every pass of the loop: without a kind being limited there
    // is nothing to end, and the clock need not be read.
    if (m_limiter.idle()) {
        return;
    }
    for (auto const& summary : m_limiter.takeEnded(m_clock())) {
        write(static_cast<Level>(summary.tag),
              "... " + groupedThousands(summary.suppressed) + " more \"" + summary.kind +
                  "\" in the last minute; the last: " + summary.last);
    }
}

void Log::lines(Level level, std::string const& text) {
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t const end = std::min(text.find('\n', start), text.size());
        write(level, text.substr(start, end - start));
        start = end + 1;
    }
}

void Log::write(Level level, std::string const& text) {
    // A line the stream could not take (stderr on a full disk) leaves it
    // failed, and a failed stream writes nothing more: the next line tries
    // again.
    m_out.clear();
    // Flushed line by line: scripts and tests follow the log through a pipe.
    if (m_format == Format::Journal) {
        m_out << priority(level) << prefix(level) << escapeControls(text) << std::endl;
    } else {
        m_out << "tarsel-modbusd: " << prefix(level) << escapeControls(text) << std::endl;
    }
}

bool isJournalStream(char const* journalStream, int fd) {
    if (journalStream == nullptr) {
        return false;
    }
    unsigned long long device = 0;
    unsigned long long inode = 0;
    int used = 0;
    if (std::sscanf(journalStream, "%llu:%llu%n", &device, &inode, &used) != 2 ||
        journalStream[used] != '\0') {
        return false;
    }
    struct stat status {};
    return ::fstat(fd, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

std::string hexWords(std::vector<unsigned short> const& words) {
    std::string text = "[";
    char word[8];
    for (std::size_t i = 0; i < words.size(); ++i) {
        std::snprintf(word, sizeof word, "%s0x%04X", i ? " " : "", words[i]);
        text += word;
    }
    return text + "]";
}

}  // namespace tarsel::daemon
