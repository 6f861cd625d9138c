#include "DaemonCore.h"

#include "modbus/PowerDistributionAvailableAccessor.h"

namespace tarsel::daemon {

DaemonCore::DaemonCore(CoreConfig config, Log& log)
    : m_log(log), m_floatLayout(probeFloatLayout()) {
    logFloatLayout();
    if (config.scenario) {
        m_scenario = std::make_unique<ScenarioPlayer>(std::move(*config.scenario),
                                                      cdshost::Store::instance(), log);
        m_scenario->seed();
    }
    m_availability = std::make_unique<modbus::PowerDistributionAvailableAccessor>();
    m_map = std::make_unique<ServedMap>(config.map, log);
    m_handler = std::make_unique<RequestHandler>(*m_map, *m_availability, log, config.unitId);
    std::size_t const pending = m_map->pendingCount();
    m_log.info("register map: " + std::to_string(m_map->entries().size()) + " entries" +
               (pending > 0 ? " (" + std::to_string(pending) + " pending)" : ""));
    watchAvailability();
}

DaemonCore::~DaemonCore() {
    // The order matters: encoders leave the data store before anything else
    // goes, and the library's shared connection outlives them all.
    m_handler.reset();
    m_map.reset();
    m_availability.reset();
    m_scenario.reset();
}

void DaemonCore::logFloatLayout() {
    m_log.info("libmodbus " + m_floatLayout.libmodbusVersion + " float layout:");
    for (auto const& layout : m_floatLayout.layouts) {
        m_log.info("  " + describeLayout(layout));
        if (!layout.roundTrips()) {
            m_log.warning("byte order " + std::to_string(layout.byteOrder) +
                          ": this libmodbus does not decode its own float layout; a float "
                          "written back as it was read is stored as a different value");
        }
    }
}

void DaemonCore::watchAvailability() {
    if (m_gate == Gate::Open) {
        return;
    }
    if (m_availability->isAvailable()) {
        m_gate = Gate::Open;
        m_log.info("UPS map is available; serving it");
    } else if (m_gate == Gate::Unknown) {
        m_gate = Gate::Closed;
        m_log.lines(Log::Level::Warning, m_availability->notAvailableMessage());
        m_log.info(
            "until then every request is answered with exception 0x0A "
            "(Gateway Path Unavailable)");
    }
}

std::string DaemonCore::describe(DescribeFormat format) {
    // The scenario may have been played ahead (--describe-at) since the last
    // retry; a pending entry whose device is there now is described built.
    buildPendingEntries();
    bool const available = m_availability->isAvailable();
    DescribeContext const context{*m_map, m_floatLayout, available,
                                  m_availability->notAvailableMessage()};
    return describeMap(context, format);
}

}  // namespace tarsel::daemon
