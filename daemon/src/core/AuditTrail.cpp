#include "AuditTrail.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>

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

}  // namespace

AuditTrail::AuditTrail(std::string const& path, Clock clock)
    : m_out(path, std::ios::app), m_clock(std::move(clock)) {
    if (!m_out) {
        // The stream keeps no reason; the system's is still in errno.
        throw std::runtime_error("cannot open the audit trail " + quotedValue(path) + ": " +
                                 std::strerror(errno));
    }
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
    return "cannot open the audit trail " + quotedValue(path) + ": " + std::strerror(reason);
}

void AuditTrail::record(std::string const& text) {
    m_out << utcTimestamp(m_clock()) << ' ' << escapeControls(text) << '\n';
    m_out.flush();
}

}  // namespace tarsel::daemon
