#include "HostResolver.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>

namespace tarsel::daemon::nut {

namespace {

/* The numeric text of a socket address. */
std::string numericHost(addrinfo const& info) {
    char text[NI_MAXHOST] = {};
    if (::getnameinfo(info.ai_addr, info.ai_addrlen, text, sizeof text, nullptr, 0,
                      NI_NUMERICHOST) != 0) {
        return {};
    }
    return text;
}

}  // namespace

ResolvedHost resolveHost(std::string const& host) {
    // As NUT's library asks: any family, a TCP stream.
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    addrinfo* found = nullptr;
    ResolvedHost resolved;
    int const error = ::getaddrinfo(host.c_str(), nullptr, &hints, &found);
    if (error != 0) {
        resolved.failure = "cannot resolve \"" + host + "\": " + ::gai_strerror(error);
        return resolved;
    }
    std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> const owned(found, ::freeaddrinfo);
    for (addrinfo const* info = found; info != nullptr; info = info->ai_next) {
        std::string address = numericHost(*info);
        bool const known = std::find(resolved.addresses.begin(), resolved.addresses.end(),
                                     address) != resolved.addresses.end();
        if (!address.empty() && !known) {
            resolved.addresses.push_back(std::move(address));
        }
    }
    if (resolved.addresses.empty()) {
        resolved.failure = "cannot resolve \"" + host + "\": no address";
    }
    return resolved;
}

std::string connectToUpsd(UpsClientLibrary const& library, UPSCONN_t& connection,
                          Endpoint const& endpoint, std::chrono::seconds timeout) {
    ResolvedHost const host = resolveHost(endpoint.host);
    std::string failure = host.failure;
    for (std::string const& address : host.addresses) {
        timeval tv{};
        tv.tv_sec = static_cast<time_t>(timeout.count());
        if (library.tryconnect(&connection, address.c_str(), endpoint.port, 0, &tv) >= 0) {
            return {};
        }
        failure = library.strerror(&connection);
        library.disconnect(&connection);
    }
    return failure;
}

}  // namespace tarsel::daemon::nut
