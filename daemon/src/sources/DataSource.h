// Where the served values come from: something that keeps the data store in
// step with a world outside the daemon (a scenario, a UPS behind upsd). The
// daemon's loop drives it on the loop's thread, so every change it makes to
// the store, and every notification that change fires, happens on the thread
// that also serves the Modbus clients.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "Histogram.h"

namespace tarsel::daemon {

/* How a source stands, for the health and metrics endpoint. */
struct SourceStatus {
    bool fresh = true;   // the store holds what the world outside holds now
    std::string detail;  // why not, when not fresh
    // Round trips to the world outside (NUT: one LIST VAR each) and how long
    // they took, in seconds; a source that does not poll has none.
    std::uint64_t polls = 0;
    HistogramSnapshot pollLatency;
};

class DataSource {
  public:
    using Clock = std::chrono::steady_clock;

    virtual ~DataSource() = default;

    /* Puts what is there from the start into the store, before the register
     * map is built. */
    virtual void seed() {}
    /* The loop is about to run; times count from `now`. */
    virtual void start(Clock::time_point now) = 0;
    /* A descriptor that turns readable when the source has something for the
     * loop (changes fetched on another thread); -1 when it has none. */
    virtual int wakeDescriptor() const { return -1; }
    /* When update() has timed work to do next; nothing when it has none. */
    virtual std::optional<Clock::time_point> nextDue() const = 0;
    /* Applies to the store what is due at `now`; true when it changed the
     * store. Only on the loop's thread. */
    virtual bool update(Clock::time_point now) = 0;
    /* Freshness and poll figures at `now`. A source that lives in the
     * process (a scenario) is always fresh and polls nothing. Only on the
     * loop's thread. */
    virtual SourceStatus status(Clock::time_point /*now*/) const { return {}; }

  protected:
    DataSource() = default;
    DataSource(DataSource const&) = delete;
    DataSource& operator=(DataSource const&) = delete;
};

}  // namespace tarsel::daemon
