#include "AuditTrail.h"

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

void AuditTrail::record(std::string const& text) {
    m_out << utcTimestamp(m_clock()) << ' ' << escapeControls(text) << '\n';
    m_out.flush();
}

}  // namespace tarsel::daemon
