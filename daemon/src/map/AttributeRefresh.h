// Keeps device-attribute entries served. The library's device accessor
// reports its attribute as not existing after any change notification of its
// device (an attribute written, the device renamed) until the device shows
// up under a new id; that is its rule and stays. The daemon rebuilds such an
// entry while its device is still there, so identity reads again.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <vector>

#include "ServedMap.h"

namespace tarsel::daemon {

class AttributeRefresh {
  public:
    using Clock = std::chrono::steady_clock;

    // One entry is rebuilt at most twice a second, so a client writing an
    // attribute in a loop cannot keep the daemon rebuilding, and a change
    // is served again within a second.
    static constexpr std::chrono::milliseconds kMinInterval{500};
    // Rebuilds in one call; the rest wait for the next pass of the loop.
    static constexpr std::size_t kMaxPerRun = 8;

    /* Watches the entries of `map` that read a device attribute; the map
     * must outlive this. */
    explicit AttributeRefresh(ServedMap& map);

    /* Rebuilds the stale entries that are due (at most kMaxPerRun); returns
     * how many. Call it from the loop, never from a data-store callback:
     * rebuilding destroys the entry's data accessors. */
    std::size_t run(Clock::time_point now);

    /* When run() has work next; nothing while no entry is stale. */
    std::optional<Clock::time_point> due() const;

    /* What due() answers right after the last run(), found by run() in the
     * same walk over the entries: the loop asks it once the pass's changes
     * are in, so each pass walks the entries once, not twice. Before the
     * first run(), due(). */
    std::optional<Clock::time_point> dueAfterLastRun() const;

    /* True when the entry reads a device attribute that the library reports
     * as not existing while every device it names is there: rebuilding it
     * serves it again. */
    static bool stale(ServedEntry const& entry);

    /* stale(), for a read or a write that meets the entry: a device found
     * gone is not looked up again for kMinInterval, so requests that keep
     * meeting an entry whose device is gone cost no data-store call each
     * (its data accessor sees the device come back by itself). The wait is
     * kept by `map`, the entry's map. */
    static bool staleOnRequest(ServedMap& map, ServedEntry const& entry);

  private:
    struct Watched {
        ServedEntry* entry;
        Clock::time_point next;  // no attempt before this
    };

    /* Built, and an attribute source that reports not existing. */
    static bool lostAttribute(ServedEntry const& entry);
    /* Every device the entry's lost attributes name is there now. */
    static bool devicesPresent(ServedEntry const& entry);

    ServedMap& m_map;
    std::vector<Watched> m_watched;
    bool m_ran = false;
    std::optional<Clock::time_point> m_dueAfterRun;
};

}  // namespace tarsel::daemon
