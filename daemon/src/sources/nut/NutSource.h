// Network UPS Tools as the data source: each configured UPS is polled by a
// Poller on its own thread and mirrored in the store by a UpsMirror on the
// loop's thread, where the library hears the changes.
//
// What NUT's faults look like in the store (and so on the Modbus side):
//  - fresh data: the UPS's device is there, in step with upsd.
//  - data stale (the driver is gone or silent), the UPS unknown to upsd
//    (removed from its configuration), upsd unreachable (down, restarting,
//    hung: no answer within 5 s, no whole answer within the poll's bound,
//    a list longer than any UPS's): the UPS's device is removed, so
//    every entry over it reads as the map's unavailable value; the device is
//    built again as soon as upsd gives fresh data, without any restart.
//  - a variable that disappears: its channel is removed (entries over it
//    read as unavailable) and comes back when the variable does.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Commander.h"
#include "RemoteWrites.h"

#include "Log.h"
#include "MapModel.h"
#include "NutEndpoint.h"
#include "Poller.h"
#include "UpsMirror.h"
#include "WakePipe.h"
#include "sources/DataSource.h"

namespace tarsel::daemon::nut {

struct SourceConfig {
    std::vector<Endpoint> upses;
    std::chrono::milliseconds interval{1000};
    // How long connecting to upsd may take before it counts as a failure
    // (an answer is waited for at most 5 s by NUT's client library).
    std::chrono::seconds timeout{2};
    // A whole poll (connect, LIST VAR, LIST CMD): one that takes longer is
    // interrupted and counts as upsd unreachable, however upsd trickles.
    std::chrono::milliseconds pollBound{Poller::kDefaultBound};
    // With credentials, writes go back to upsd (SET VAR, INSTCMD); without,
    // the source takes none.
    std::optional<Credentials> credentials;
    // A write's whole exchange with upsd, tracking included. NUT's library
    // waits in whole seconds, so this ends within a second after: still
    // within the bound of the deferred answer (5 s), so the client hears
    // the outcome the write found.
    std::chrono::milliseconds writeBound{3500};
};

/* The first UPS's device id: the one the availability check reads. Further
 * UPSes follow it (3, 4, ...). */
constexpr cdshost::Id kFirstUpsDevice = 2;

/* The map of the UPS at `index` among those configured, from the map of the
 * first: every source on the first UPS's device, of the entries and of the
 * identification objects, goes to that UPS's device (sources found by name
 * stay as they are). */
RegisterMapDefinition mapForUps(RegisterMapDefinition map, std::size_t index);

/* Writes go back to upsd: an entry over one variable of a UPS (a channel,
 * or an identity attribute) becomes SET VAR with the value the entry's
 * encoder would have stored; a coil over a command channel
 * ("instcmd.<command>") written ON becomes INSTCMD. Each runs on the UPS's
 * poller thread; its outcome comes back on the loop's thread. */
class Source : public DataSource, public RemoteWrites {
  public:
    using FetcherFactory = std::function<std::unique_ptr<Fetcher>(Endpoint const&)>;
    using CommanderFactory = std::function<std::unique_ptr<Commander>(Endpoint const&)>;

    Source(SourceConfig config, cdshost::Store& store, Log& log);
    /* With another way to reach upsd (tests, benchmarks). */
    Source(SourceConfig config, cdshost::Store& store, Log& log, FetcherFactory fetchers,
           CommanderFactory commanders = nullptr);
    ~Source() override;

    void start(Clock::time_point now) override;
    int wakeDescriptor() const override { return m_wake.fd(); }
    std::optional<Clock::time_point> nextDue() const override { return std::nullopt; }
    bool update(Clock::time_point now) override;
    /* Fresh while the last poll of every UPS found fresh data and ended
     * recently enough (a poller thread that stopped polling is stale too). */
    SourceStatus status(Clock::time_point now) const override;

    UpsMirror const& mirror(std::size_t index) const { return *m_upses.at(index).mirror; }

    /* True when credentials were given: writes are taken. */
    bool writable() const { return static_cast<bool>(m_commanders); }
    bool owns(ServedEntry const& entry) const override;
    std::optional<RemoteOutcome> start(ServedEntry const& entry,
                                       std::vector<std::uint16_t> const& words,
                                       std::string const& client, Done done) override;

  private:
    struct Ups {
        Endpoint endpoint;
        std::unique_ptr<UpsMirror> mirror;
        std::unique_ptr<Poller> poller;
        std::optional<Reading::State> state;  // as last logged
        // Used on the poller's thread only; destroyed after the poller.
        std::unique_ptr<Commander> commander;
    };

    /* What a write to an entry is at upsd: a variable or a command. */
    struct Target {
        std::size_t ups = 0;  // index in m_upses
        std::string name;
        bool command = false;
    };
    std::optional<Target> targetOf(EntryDefinition const& entry) const;
    std::optional<std::size_t> upsOf(DeviceRef const& device) const;
    std::optional<Command> commandFor(Target const& target, EntryDefinition const& entry,
                                      std::vector<std::uint16_t> const& words,
                                      RemoteOutcome& refusal);
    void finishWrites();

    bool apply(Ups& ups, Reading const& reading);
    void logState(Ups& ups, Reading const& reading);
    void logListenerFailures(Ups const& ups);
    void logOutletsLeftOut(Ups const& ups);

    SourceConfig const m_config;
    cdshost::Store& m_store;
    Log& m_log;
    FetcherFactory m_fetchers;
    CommanderFactory m_commanders;
    IdPool m_ids;
    WakePipe m_wake;
    std::vector<Ups> m_upses;
    // Outcomes of writes, from the poller threads to the loop's.
    std::mutex m_doneMutex;
    std::vector<std::pair<Done, RemoteOutcome>> m_done;
};

}  // namespace tarsel::daemon::nut
