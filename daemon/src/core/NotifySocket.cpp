#include "NotifySocket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "Descriptor.h"

namespace tarsel::daemon {

namespace {

std::string systemError(char const* call) {
    return std::string(call) + ": " + std::strerror(errno);
}

}  // namespace

NotifySocket NotifySocket::fromEnvironment() {
    char const* const address = std::getenv("NOTIFY_SOCKET");
    return NotifySocket(address != nullptr ? address : "");
}

NotifySocket::NotifySocket(std::string address) : m_address(std::move(address)) {}

std::string NotifySocket::send(std::string const& state) const {
    if (m_address.empty()) {
        return {};
    }
    sockaddr_un peer{};
    peer.sun_family = AF_UNIX;
    bool const abstract = m_address[0] == '@';
    if (!abstract && m_address[0] != '/') {
        return "\"" + m_address + "\" is neither an absolute path nor an abstract name (@...)";
    }
    // A path needs its terminating NUL in sun_path; an abstract name is
    // exactly its bytes, the leading '@' becoming the NUL that marks it.
    if (m_address.size() + (abstract ? 0 : 1) > sizeof peer.sun_path) {
        return "\"" + m_address + "\" is longer than a socket address can be";
    }
    std::memcpy(peer.sun_path, m_address.data(), m_address.size());
    if (abstract) {
        peer.sun_path[0] = '\0';
    }
    auto const length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + m_address.size());
    Descriptor const socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (socket.get() < 0) {
        return systemError("socket");
    }
    ssize_t sent = -1;
    do {
        // MSG_NOSIGNAL: a manager that went away is a failure to report,
        // not a SIGPIPE that ends the daemon.
        sent = ::sendto(socket.get(), state.data(), state.size(), MSG_NOSIGNAL,
                        reinterpret_cast<sockaddr const*>(&peer), length);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        return systemError("sendto");
    }
    if (static_cast<std::size_t>(sent) != state.size()) {
        return "sent " + std::to_string(sent) + " of " + std::to_string(state.size()) + " bytes";
    }
    return {};
}

}  // namespace tarsel::daemon
