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
#include "Describe.h"
#include "FloatProbe.h"
#include "Log.h"
#include "MapModel.h"
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

struct CoreConfig {
    RegisterMapDefinition map;
    // Where the values come from: a scenario to play, or another source
    // (given the scenario is empty); neither leaves the store as it is.
    std::optional<Scenario> scenario;
    std::unique_ptr<DataSource> source;
    std::uint8_t unitId = 1;
    std::vector<UnitConfig> moreUnits;
    // Every write refused (Illegal Function): the data cannot be written back.
    bool readOnly = false;
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

    ServedMap& map() { return *m_map; }
    RequestHandler& handler() { return *m_handler; }
    /* Every unit's writes also go to this trail (see RequestHandler); it
     * must outlive the core. */
    void setAuditTrail(AuditTrail* trail);
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

    /* Builds what can be built by now first, so the description shows the
     * map as a request would find it. */
    std::string describe(DescribeFormat format);

  private:
    void logFloatLayout();

    enum class Gate { Unknown, Closed, Open };

    Log& m_log;
    FloatLayoutReport m_floatLayout;
    std::unique_ptr<DataSource> m_source;
    ScenarioPlayer* m_scenario = nullptr;  // within m_source
    std::unique_ptr<modbus::MapAvailableAccessor> m_availability;
    std::unique_ptr<ServedMap> m_map;
    std::unique_ptr<RequestHandler> m_handler;
    // The further units: their maps and handlers, in the order configured.
    std::vector<std::unique_ptr<ServedMap>> m_unitMaps;
    std::vector<std::unique_ptr<RequestHandler>> m_unitHandlers;
    // One per map, the main map's first; they hold pointers into the maps.
    std::vector<std::unique_ptr<AttributeRefresh>> m_refresh;
    Gate m_gate = Gate::Unknown;
};

}  // namespace tarsel::daemon
