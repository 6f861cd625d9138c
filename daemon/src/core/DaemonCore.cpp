#include "DaemonCore.h"

#include "MapWarnings.h"
#include "cdshost/store.h"
#include "modbus/PowerDistributionAvailableAccessor.h"
#include "sources/ScenarioSource.h"

namespace tarsel::daemon {

DaemonCore::DaemonCore(CoreConfig config, Log& log)
    : m_log(log), m_floatLayout(probeFloatLayout()) {
    // The store lives as long as the daemon: counts kept per id would grow
    // with every subscription a reload opens, and nothing here reads them.
    cdshost::Store::instance().countCallsPerId(false);
    logFloatLayout();
    if (config.scenario) {
        for (auto const& line : scenarioWarnings(*config.scenario)) {
            m_log.warning("scenario: " + line);
        }
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
    m_remoteWrites = config.remoteWrites;
    m_served = buildServed(config);
    if (m_remoteWrites != nullptr) {
        m_log.info("writes go back to the UPS; each answer waits for its outcome, " +
                   std::to_string(m_replies.bound().count()) + " ms at most");
    }
    watchAvailability();
}

std::unique_ptr<DaemonCore::Served> DaemonCore::buildServed(ServedConfig const& config) {
    auto served = std::make_unique<Served>();
    served->map = std::make_unique<ServedMap>(config.map, m_log);
    for (auto const& line : mapWarnings(config.map, m_floatLayout)) {
        m_log.warning("map: " + line);
    }
    served->handler =
        std::make_unique<RequestHandler>(*served->map, *m_availability, m_log, config.unitId);
    std::size_t const pending = served->map->pendingCount();
    m_log.info("register map: " + std::to_string(served->map->entries().size()) + " entries" +
               (pending > 0 ? " (" + std::to_string(pending) + " pending)" : ""));
    for (auto const& unit : config.moreUnits) {
        served->unitMaps.push_back(std::make_unique<ServedMap>(unit.map, m_log));
        served->unitHandlers.push_back(std::make_unique<RequestHandler>(
            *served->unitMaps.back(), *m_availability, m_log, unit.unitId));
        served->handler->routeUnit(unit.unitId, *served->unitHandlers.back());
        if (config.readOnly) {
            served->unitHandlers.back()->refuseWrites();
        }
        if (m_remoteWrites != nullptr) {
            served->unitHandlers.back()->setRemoteWrites(m_remoteWrites, &m_replies);
        }
        m_log.info("unit id " + std::to_string(unit.unitId) + ": " +
                   std::to_string(unit.map.entries.size()) + " entries");
    }
    served->refresh.push_back(std::make_unique<AttributeRefresh>(*served->map));
    for (auto const& map : served->unitMaps) {
        served->refresh.push_back(std::make_unique<AttributeRefresh>(*map));
    }
    m_readOnly = config.readOnly;
    if (config.readOnly) {
        served->handler->refuseWrites();
        m_log.info("writes are refused with exception 0x01 (Illegal Function)");
    }
    if (m_remoteWrites != nullptr) {
        served->handler->setRemoteWrites(m_remoteWrites, &m_replies);
    }
    served->handler->setAuditTrail(m_auditTrail);
    served->handler->setMetrics(m_metrics);
    for (auto const& handler : served->unitHandlers) {
        handler->setAuditTrail(m_auditTrail);
    }
    return served;
}

DaemonCore::~DaemonCore() {
    // The order matters: encoders leave the data store before anything else
    // goes, and the library's shared connection outlives them all.
    m_served.reset();
    m_availability.reset();
    m_scenario = nullptr;
    m_source.reset();
}

void DaemonCore::replaceMaps(ServedConfig const& config) {
    // Built before the old maps go, so that nothing is ever without a
    // handler; for that moment both maps' encoders are subscribed.
    std::unique_ptr<Served> next = buildServed(config);
    if (m_metrics != nullptr) {
        m_metrics->addRetiredPushes(totalPushes());
    }
    std::swap(m_served, next);
    next.reset();
}

void DaemonCore::setAuditTrail(AuditTrail* trail) {
    m_auditTrail = trail;
    m_served->handler->setAuditTrail(trail);
    for (auto const& handler : m_served->unitHandlers) {
        handler->setAuditTrail(trail);
    }
}

void DaemonCore::setMetrics(Metrics* metrics) {
    m_metrics = metrics;
    m_served->handler->setMetrics(metrics);
}

std::uint64_t DaemonCore::totalPushes() const {
    std::uint64_t pushes = m_served->map->totalPushes();
    for (auto const& map : m_served->unitMaps) {
        pushes += map->totalPushes();
    }
    return pushes;
}

std::size_t DaemonCore::pendingEntries() const {
    std::size_t pending = m_served->map->pendingCount();
    for (auto const& map : m_served->unitMaps) {
        pending += map->pendingCount();
    }
    return pending;
}

bool DaemonCore::hasPendingEntries() const {
    return pendingEntries() > 0;
}

std::size_t DaemonCore::buildPendingEntries() {
    std::size_t built = m_served->map->buildPending();
    for (auto const& map : m_served->unitMaps) {
        built += map->buildPending();
    }
    return built;
}

std::size_t DaemonCore::refreshAttributeEntries(AttributeRefresh::Clock::time_point now) {
    std::size_t rebuilt = 0;
    for (auto const& refresh : m_served->refresh) {
        rebuilt += refresh->run(now);
    }
    return rebuilt;
}

std::optional<AttributeRefresh::Clock::time_point> DaemonCore::earliestRefresh(
    std::optional<AttributeRefresh::Clock::time_point> (AttributeRefresh::*ask)() const) const {
    std::optional<AttributeRefresh::Clock::time_point> due;
    for (auto const& refresh : m_served->refresh) {
        auto const next = ((*refresh).*ask)();
        if (next && (!due || *next < *due)) {
            due = next;
        }
    }
    return due;
}

std::optional<AttributeRefresh::Clock::time_point> DaemonCore::attributeRefreshDue() const {
    return earliestRefresh(&AttributeRefresh::due);
}

std::optional<AttributeRefresh::Clock::time_point> DaemonCore::attributeRefreshDueAfterLastRun()
    const {
    return earliestRefresh(&AttributeRefresh::dueAfterLastRun);
}

void DaemonCore::logFloatLayout() {
    m_log.info("libmodbus " + m_floatLayout.libmodbusVersion + " float layout:");
    for (auto const& layout : m_floatLayout.layouts) {
        m_log.info("  " + describeLayout(layout));
        // Only entries on the library's "float" encoder go through these
        // helpers, and mapWarnings() warns about each of them by name. Said
        // as a warning here, it was two warnings at every start of a map
        // that has no such entry (the shipped ones), in every
        // "journalctl -p warning" an operator reads.
        if (!layout.roundTrips()) {
            m_log.info("  byte order " + std::to_string(layout.byteOrder) +
                       ": this libmodbus does not decode its own float layout; a \"float\" "
                       "entry written back as it was read is stored as a different value");
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
    DescribeContext context{*m_served->map, m_floatLayout,
                            available,      m_availability->notAvailableMessage(),
                            m_readOnly,     {}};
    if (RemoteWrites const* const remote = m_remoteWrites) {
        context.takesWrites = [remote](ServedEntry const& entry) { return remote->owns(entry); };
    }
    return describeMap(context, format);
}

}  // namespace tarsel::daemon
