// A service manager's end of the notification socket, for tests: a datagram
// socket bound in a temporary directory or in the abstract namespace, and
// what arrives on it.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>

namespace tarsel::daemon::testing {

class NotifyListener {
  public:
    enum class Kind { Path, Abstract };

    explicit NotifyListener(Kind kind) {
        char pattern[] = "/tmp/tarsel-notify-XXXXXX";
        if (::mkdtemp(pattern) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        m_dir = pattern;
        // The abstract name borrows the unique directory's name, so that
        // tests running side by side do not meet.
        m_address = kind == Kind::Path ? m_dir + "/notify" : "@" + m_dir + "/notify";
        m_fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, m_address.data(), m_address.size());
        if (kind == Kind::Abstract) {
            address.sun_path[0] = '\0';
        }
        auto const length =
            static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + m_address.size());
        if (m_fd < 0 || ::bind(m_fd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
            throw std::runtime_error("cannot bind " + m_address);
        }
    }
    ~NotifyListener() {
        ::close(m_fd);
        if (m_address[0] == '/') {
            ::unlink(m_address.c_str());
        }
        ::rmdir(m_dir.c_str());
    }
    NotifyListener(NotifyListener const&) = delete;
    NotifyListener& operator=(NotifyListener const&) = delete;

    /* What NOTIFY_SOCKET would hold: the path, or "@name". */
    std::string const& address() const { return m_address; }
    std::string const& directory() const { return m_dir; }

    /* The next datagram, exactly as sent; nothing when none came within
     * waitMs. */
    std::optional<std::string> receive(int waitMs) const {
        pollfd ready{m_fd, POLLIN, 0};
        if (::poll(&ready, 1, waitMs) != 1) {
            return std::nullopt;
        }
        char buffer[4096];
        ssize_t const size = ::recv(m_fd, buffer, sizeof buffer, 0);
        if (size < 0) {
            return std::nullopt;
        }
        return std::string(buffer, static_cast<std::size_t>(size));
    }

  private:
    std::string m_dir;
    std::string m_address;
    int m_fd = -1;
};

}  // namespace tarsel::daemon::testing
