#include "AuditTrail.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "Log.h"
#include "LogText.h"

namespace tarsel::daemon {

namespace {

/* "2026-11-23T19:41:07Z" */
std::string utcTimestamp(std::chrono::system_clock::time_point when) {
    std::time_t const seconds = std::chrono::system_clock::to_time_t(when);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

/* O_APPEND: every line lands at the end of the file as it is then, so a
 * trail truncated under the daemon (rotated by copying) is written from its
 * new start instead of after a hole as long as what it held. */
int openForAppending(std::string const& path) {
    return ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
}

std::string cannotOpen(std::string const& path, int reason) {
    return "cannot open the audit trail " + quotedValue(path) + ": " + std::strerror(reason);
}

}  // namespace

AuditTrail::AuditTrail(std::string path, Log& log, Clock clock)
    : m_path(std::move(path)), m_log(log), m_clock(std::move(clock)) {
    int const fd = openForAppending(m_path);
    if (fd < 0) {
        throw std::runtime_error(cannotOpen(m_path, errno));
    }
    m_file.emplace(fd);
}

std::optional<std::string> AuditTrail::whyNotOpenable(std::string const& path) {
    int reason = 0;
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0) {
        if (S_ISDIR(status.st_mode)) {
            reason = EISDIR;
        } else if (::access(path.c_str(), W_OK) != 0) {
            reason = errno;
        }
    } else if (errno == ENOENT) {
        // Opening would create it: its directory must let us.
        std::string::size_type const slash = path.rfind('/');
        std::string const directory = slash == std::string::npos ? "."
                                      : slash == 0               ? "/"
                                                                 : path.substr(0, slash);
        if (::access(directory.c_str(), W_OK | X_OK) != 0) {
            reason = errno;
        }
    } else {
        reason = errno;
    }
    if (reason == 0) {
        return std::nullopt;
    }
    return cannotOpen(path, reason);
}

void AuditTrail::record(std::string const& text) {
    followRotation();
    std::string const line = utcTimestamp(m_clock()) + ' ' + escapeControls(text) + '\n';
    if (auto const failure = append(m_torn ? '\n' + line : line)) {
        ++m_lost;
        // The log is elsewhere (the journal): the record is kept there.
        m_log.limited(Log::Level::Error, "audit trail failures",
                      "cannot write to the audit trail " + quotedValue(m_path) + ": " + *failure +
                          "; not recorded there: " + text);
        return;
    }
    if (m_lost > 0) {
        m_log.info("the audit trail " + quotedValue(m_path) + " is written again; " +
                   groupedThousands(m_lost) + " records could not be written to it");
        m_lost = 0;
    }
}

void AuditTrail::followRotation() {
    struct stat named {};
    struct stat open {};
    if (::stat(m_path.c_str(), &named) == 0 && ::fstat(m_file->get(), &open) == 0 &&
        named.st_dev == open.st_dev && named.st_ino == open.st_ino) {
        return;
    }
    int const fd = openForAppending(m_path);
    if (fd < 0) {
        // Records go on to the file this one was, wherever it is now.
        m_log.limited(Log::Level::Error, "audit trail failures",
                      cannotOpen(m_path, errno) + " again after it was moved or removed");
        return;
    }
    m_file.emplace(fd);
    m_torn = false;
    m_log.info("the audit trail " + quotedValue(m_path) + " was moved or removed; recording in " +
               "a new one");
}

std::optional<std::string> AuditTrail::append(std::string const& line) {
    std::size_t done = 0;
    while (done < line.size()) {
        ssize_t const written = ::write(m_file->get(), line.data() + done, line.size() - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            m_torn = m_torn || done > 0;
            return std::string(written < 0 ? std::strerror(errno) : "nothing written");
        }
        done += static_cast<std::size_t>(written);
    }
    m_torn = false;
    return std::nullopt;
}

}  // namespace tarsel::daemon
