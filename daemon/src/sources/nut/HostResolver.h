// The addresses of upsd's host, looked up by the daemon rather than by NUT's
// client library: the library asks the name server again at once for as
// long as it answers "try again", so a name server that is down would hold
// a poller (and the daemon's stop) for good. Here each poll asks once, and
// the library is handed numeric addresses it never looks up.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "NutEndpoint.h"
#include "sources/nut/UpsClientLibrary.h"

namespace tarsel::daemon::nut {

struct ResolvedHost {
    std::vector<std::string> addresses;  // numeric, in the resolver's order
    std::string failure;                 // why there are none
};

/* The host's addresses for a TCP connection ("127.0.0.1", "::1"), or
 * "cannot resolve "nas": <the resolver's reason>". */
ResolvedHost resolveHost(std::string const& host);

/* Connects to upsd at the endpoint, at each of its host's addresses in turn
 * (each connect bounded by `timeout`) until one answers. Empty when
 * connected; otherwise why not, with the connection closed. */
std::string connectToUpsd(UpsClientLibrary const& library, UPSCONN_t& connection,
                          Endpoint const& endpoint, std::chrono::seconds timeout);

}  // namespace tarsel::daemon::nut
