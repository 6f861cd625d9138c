#include "DaemonCore.h"

#include "modbus/PowerDistributionAvailableAccessor.h"
#include "sources/ScenarioSource.h"

namespace tarsel::daemon {

DaemonCore::DaemonCore(CoreConfig config, Log& log)
    : m_log(log), m_floatLayout(probeFloatLayout()) {
    logFloatLayout();
    if (config.scenario) {
        auto scenario = std::make_unique<ScenarioSource>(std::move(*config.scenario),
                                                         cdshost::Store::instance(), log);
        m_scenario = &scenario->player();
        m_source = std::move(scenario);
    } else {
        m_source = std::move(config.source);
    }
    if (m_source) {
        m_source->seed();
    }
    m_availability = std::make_unique<modbus::PowerDistributionAvailableAccessor>();
    m_map = std::make_unique<ServedMap>(config.map, log);
    m_handler = std::make_unique<RequestHandler>(*m_map, *m_availability, log, config.unitId);
    std::size_t const pending = m_map->pendingCount();
    m_log.info("register map: " + std::to_string(m_map->entries().size()) + " entries" +
               (pending > 0 ? " (" + std::to_string(pending) + " pending)" : ""));
    for (auto const& unit : config.moreUnits) {
        m_unitMaps.push_back(std::make_unique<ServedMap>(unit.map, log));
        m_unitHandlers.push_back(std::make_unique<RequestHandler>(
            *m_unitMaps.back(), *m_availability, log, unit.unitId));
        m_handler->routeUnit(unit.unitId, *m_unitHandlers.back());
        if (config.readOnly) {
            m_unitHandlers.back()->refuseWrites();
        }
        m_log.info("unit id " + std::to_string(unit.unitId) + ": " +
                   std::to_string(unit.map.entries.size()) + " entries");
    }
    m_refresh.push_back(std::make_unique<AttributeRefresh>(*m_map));
    for (auto const& map : m_unitMaps) {
        m_refresh.push_back(std::make_unique<AttributeRefresh>(*map));
    }
    if (config.readOnly) {
        m_handler->refuseWrites();
        m_log.info("writes are refused with exception 0x01 (Illegal Function)");
    }
    watchAvailability();
}

DaemonCore::~DaemonCore() {
    // The order matters: encoders leave the data store before anything else
    // goes, and the library's shared connection outlives them all.
    m_refresh.clear();
    m_unitHandlers.clear();
    m_unitMaps.clear();
    m_handler.reset();
    m_map.reset();
    m_availability.reset();
    m_scenario = nullptr;
    m_source.reset();
}

void DaemonCore::setAuditTrail(AuditTrail* trail) {
    m_handler->setAuditTrail(trail);
    for (auto const& handler : m_unitHandlers) {
        handler->setAuditTrail(trail);
    }
}

bool DaemonCore::hasPendingEntries() const {
    bool pending = m_map->pendingCount() > 0;
    for (auto const& map : m_unitMaps) {
        pending = pending || map->pendingCount() > 0;
    }
    return pending;
}

std::size_t DaemonCore::buildPendingEntries() {
    std::size_t built = m_map->buildPending();
    for (auto const& map : m_unitMaps) {
        built += map->buildPending();
    }
    return built;
}

std::size_t DaemonCore::refreshAttributeEntries(AttributeRefresh::Clock::time_point now) {
    std::size_t rebuilt = 0;
    for (auto const& refresh : m_refresh) {
        rebuilt += refresh->run(now);
    }
    return rebuilt;
}

std::optional<AttributeRefresh::Clock::time_point> DaemonCore::attributeRefreshDue() const {
    std::optional<AttributeRefresh::Clock::time_point> due;
    for (auto const& refresh : m_refresh) {
        auto const next = refresh->due();
        if (next && (!due || *next < *due)) {
            due = next;
        }
    }
    return due;
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
            "until then every well-formed request for served data is answered with exception "
            "0x0A (Gateway Path Unavailable); Read Device Identification is answered");
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
