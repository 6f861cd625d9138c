// Everything the daemon serves, without the network: the float layout probe,
// the scenario, the availability check, the encoders and the request logic.
// Tests build it in-process; the program wraps it in a server and a loop.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "AttributeRefresh.h"
#include "DeferredReplies.h"
#include "Describe.h"
#include "FloatProbe.h"
#include "Log.h"
#include "MapModel.h"
#include "Metrics.h"
#include "RequestHandler.h"
#include "Scenario.h"
#include "ServedMap.h"
#include "modbus/MapAvailableAccessor.h"
#include "sources/DataSource.h"

namespace tarsel::daemon {

/* A further unit id served by the same daemon, with a map of its own. */
struct UnitConfig {
    std::uint8_t unitId = 2;
    RegisterMapDefinition map;
};

/* What a reload replaces: the maps and the unit ids they are served under. */
struct ServedConfig {
    RegisterMapDefinition map;
    std::uint8_t unitId = 1;
    std::vector<UnitConfig> moreUnits;
    // Every write refused (Illegal Function): the data cannot be written back.
    bool readOnly = false;
};

struct CoreConfig : ServedConfig {
    // Where the values come from: a scenario to play, or another source
    // (given the scenario is empty); neither leaves the store as it is.
    std::optional<Scenario> scenario;
    std::unique_ptr<DataSource> source;
    // Writes to the entries it owns go there instead of to the store (the
    // source, which owns it, writing back to a UPS); their answers are
    // deferred until it reports the outcome. Kept across reloads.
    RemoteWrites* remoteWrites = nullptr;
};

class DaemonCore {
  public:
    /* Probes the float layout, seeds the store from the source, then builds
     * the availability check and every encoder. */
    DaemonCore(CoreConfig config, Log& log);
    /* Destroys every encoder (closing its data-store subscriptions) before
     * the availability check and the source. */
    ~DaemonCore();

    DaemonCore(DaemonCore const&) = delete;
    DaemonCore& operator=(DaemonCore const&) = delete;

    ServedMap& map() { return *m_served->map; }
    /* The handler the listeners hand every request to. A reload replaces
     * it: ask again after replaceMaps(). */
    RequestHandler& handler() { return *m_served->handler; }
    /* Where answers that wait for a remote write's outcome are kept. */
    DeferredReplies const& deferredReplies() const { return m_replies; }
    /* Every unit's writes also go to this trail (see RequestHandler); it
     * must outlive the core. */
    void setAuditTrail(AuditTrail* trail);
    /* Every request answered is counted here (by the handler the listeners
     * call, so a request for a further unit counts once); must outlive the
     * core. */
    void setMetrics(Metrics* metrics);

    /* Builds the maps and handlers of `config`, then destroys the ones
     * served until now, every data-store subscription of their encoders
     * with them. Only on the loop's thread, between two requests: a request
     * is answered wholly by the old maps or wholly by the new ones. The
     * source and the availability check are kept. */
    void replaceMaps(ServedConfig const& config);
    /* Pushes received by the maps served now (a reload starts from 0). */
    std::uint64_t totalPushes() const;
    std::size_t pendingEntries() const;
    /* The simulated world when a scenario is played; null otherwise. */
    ScenarioPlayer* scenario() { return m_scenario; }
    /* Where the values come from; null when nothing changes the store. */
    DataSource* source() { return m_source.get(); }
    modbus::MapAvailableAccessor& availability() { return *m_availability; }
    FloatLayoutReport const& floatLayout() const { return m_floatLayout; }

    /* Logs the not-available text once while the map cannot be served, and
     * the moment it can. */
    void watchAvailability();

    /* True while some entry of a map could not be built yet. */
    bool hasPendingEntries() const;
    /* Tries to build the pending entries again; returns how many were built.
     * Only on the thread that serves the map. */
    std::size_t buildPendingEntries();

    /* Rebuilds the device-attribute entries of every map that the library
     * stopped serving after a change of their device (see AttributeRefresh);
     * returns how many. Only on the thread that serves the map, from the
     * loop. */
    std::size_t refreshAttributeEntries(AttributeRefresh::Clock::time_point now);
    /* When refreshAttributeEntries() has work next; nothing while none. */
    std::optional<AttributeRefresh::Clock::time_point> attributeRefreshDue() const;
    /* The same as known at the end of the last refreshAttributeEntries(),
     * without asking the entries again (see AttributeRefresh). */
    std::optional<AttributeRefresh::Clock::time_point> attributeRefreshDueAfterLastRun() const;

    /* Builds what can be built by now first, so the description shows the
     * map as a request would find it. */
    std::string describe(DescribeFormat format);

  private:
    /* The earliest time any map's refresh gives when asked `ask`. */
    std::optional<AttributeRefresh::Clock::time_point> earliestRefresh(
        std::optional<AttributeRefresh::Clock::time_point> (AttributeRefresh::*ask)() const) const;

    /* The maps served and their handlers, replaced whole by a reload. The
     * order of the members is the order of destruction, reversed: handlers
     * before their maps, further units before the first. */
    struct Served {
        std::unique_ptr<ServedMap> map;
        std::unique_ptr<RequestHandler> handler;
        std::vector<std::unique_ptr<ServedMap>> unitMaps;
        std::vector<std::unique_ptr<RequestHandler>> unitHandlers;
        // One per map, the main map's first; they hold pointers into the maps.
        std::vector<std::unique_ptr<AttributeRefresh>> refresh;
    };

    std::unique_ptr<Served> buildServed(ServedConfig const& config);
    void logFloatLayout();

    enum class Gate { Unknown, Closed, Open };

    Log& m_log;
    FloatLayoutReport m_floatLayout;
    std::unique_ptr<DataSource> m_source;
    ScenarioPlayer* m_scenario = nullptr;  // within m_source
    std::unique_ptr<modbus::MapAvailableAccessor> m_availability;
    // Before the maps' handlers, which note time-outs in it: it goes after
    // them, and it stays across reloads.
    DeferredReplies m_replies;
    // Owned by the source: writes to its entries go there (see CoreConfig).
    RemoteWrites* m_remoteWrites = nullptr;
    std::unique_ptr<Served> m_served;
    AuditTrail* m_auditTrail = nullptr;
    Metrics* m_metrics = nullptr;
    Gate m_gate = Gate::Unknown;
    bool m_readOnly = false;  // every write refused: the description says R
};

}  // namespace tarsel::daemon
