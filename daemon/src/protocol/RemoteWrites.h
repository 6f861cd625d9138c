// Writes to entries whose values live elsewhere (a UPS behind upsd): the
// request handler hands them over instead of writing to the data store, and
// answers the client once the outcome is known (see DeferredReplies).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "ServedMap.h"

namespace tarsel::daemon {

/* How a write handed over ended: the exception code the client gets (0:
 * done) and a short text for the log and the audit trail. */
struct RemoteOutcome {
    std::uint8_t exception = 0;
    std::string text;
};

class RemoteWrites {
  public:
    /* Runs on the loop's thread, once per write started. */
    using Done = std::function<void(RemoteOutcome const&)>;

    virtual ~RemoteWrites() = default;

    /* True when writes to this entry go elsewhere rather than to the store. */
    virtual bool owns(ServedEntry const& entry) const = 0;
    /* Starts writing `words` (the entry's part of the request) for `client`.
     * An outcome known at once (the write is refused before anything is
     * sent) is returned and `done` is not called; otherwise nothing is
     * returned and `done` is called later, on the loop's thread. */
    virtual std::optional<RemoteOutcome> start(ServedEntry const& entry,
                                               std::vector<std::uint16_t> const& words,
                                               std::string const& client, Done done) = 0;

  protected:
    RemoteWrites() = default;
    RemoteWrites(RemoteWrites const&) = delete;
    RemoteWrites& operator=(RemoteWrites const&) = delete;
};

}  // namespace tarsel::daemon
