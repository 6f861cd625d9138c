// Carries out writes at upsd: SET VAR and INSTCMD as an authenticated user,
// followed to their end through upsd's command tracking where it offers it.
// Runs on the UPS's poller thread; every wait is bounded.
#pragma once

#include <chrono>
#include <memory>

#include "NutCredentials.h"
#include "NutEndpoint.h"
#include "NutWrites.h"

namespace tarsel::daemon::nut {

class Commander {
  public:
    virtual ~Commander() = default;
    virtual CommandResult run(Command const& command) = 0;
    /* Makes the run() in progress end at once with no outcome, as if upsd
     * had closed the connection. Called from another thread than run();
     * does nothing between runs. */
    virtual void interrupt() {}
};

/* Over NUT's client library, one connection per command: connect (within
 * `connectTimeout`), USERNAME, PASSWORD, SET TRACKING ON, the command, then
 * GET TRACKING until it is no longer PENDING. All of it ends by `bound` from
 * the start, as far as each of the library's waits goes (in whole seconds):
 * what is not known by then is NoAnswer. interrupt() shuts the connection
 * down, for an answer that trickles in past the bound. */
std::unique_ptr<Commander> makeNutCommander(Endpoint endpoint, Credentials credentials,
                                            std::chrono::seconds connectTimeout,
                                            std::chrono::milliseconds bound);

}  // namespace tarsel::daemon::nut
