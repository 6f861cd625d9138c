#include "Reloader.h"

#include "LogText.h"
#include "cdshost/store.h"

namespace tarsel::daemon {

namespace {

std::string joined(std::vector<std::string> const& names) {
    std::string text;
    for (auto const& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

}  // namespace

Reloader::Reloader(Load load, Options running, DaemonCore& core, ReloadListeners listeners,
                   Metrics* metrics, Log& log, AfterReload afterReload)
    : m_load(std::move(load)),
      m_running(std::move(running)),
      m_core(core),
      m_listeners(listeners),
      m_metrics(metrics),
      m_log(log),
      m_afterReload(std::move(afterReload)) {}

bool Reloader::reload() {
    bool const applied = loadAndApply();
    // The files read, the configuration built from them and, when applied,
    // the maps replaced are all freed by now: megabytes at thousands of
    // entries, which the allocator would otherwise keep resident.
    if (m_afterReload) {
        m_afterReload();
    }
    return applied;
}

bool Reloader::loadAndApply() {
    Configuration next;
    ServedConfig served;
    try {
        next = m_load();
        served = servedConfig(next);
    } catch (ConfigurationError const& error) {
        return refuse(error.refusals());
    } catch (std::exception const& error) {
        return refuse({{error.what(), {}}});
    }
    std::vector<std::string> const restart = settingsNeedingRestart(m_running, next.options);
    if (!restart.empty()) {
        return refuse({{joined(restart) + " changed, which needs a restart", {}}});
    }
    apply(next, served);
    return true;
}

bool Reloader::refuse(std::vector<Refusal> const& refusals) {
    // One reason without details fits the closing line; anything more is
    // listed first, each file or setting with its errors.
    bool const oneLine = refusals.size() == 1 && refusals.front().errors.empty();
    if (!oneLine) {
        for (Refusal const& refusal : refusals) {
            m_log.error("reload: " + refusal.heading);
            for (auto const& line : refusal.errors) {
                m_log.error("  " + line);
            }
        }
    }
    m_log.error("reload refused" + (oneLine ? ": " + refusals.front().heading : std::string()) +
                "; still serving the running map");
    if (m_metrics != nullptr) {
        m_metrics->countReload(ReloadOutcome::Refused);
    }
    return false;
}

void Reloader::apply(Configuration const& next, ServedConfig const& served) {
    m_core.replaceMaps(served);
    // The old handlers are gone: the listeners must not keep them a moment
    // past replaceMaps().
    if (m_listeners.plain != nullptr) {
        m_listeners.plain->setHandler(m_core.handler());
        m_listeners.plain->setAccess(next.options.access);
    }
    if (m_listeners.secure != nullptr) {
        m_listeners.secure->setHandler(m_core.handler());
        m_listeners.secure->setAccess(next.options.tlsAccess);
    }
    m_running = next.options;
    if (m_metrics != nullptr) {
        m_metrics->countReload(ReloadOutcome::Applied);
    }
    std::string const file =
        next.options.mapFile.empty() ? "the built-in map" : quotedValue(next.options.mapFile);
    std::size_t const pending = m_core.pendingEntries();
    m_log.info("reload applied: " + file + ", " + std::to_string(next.map.entries.size()) +
               " entries" + (pending > 0 ? " (" + std::to_string(pending) + " pending)" : "") +
               ", unit id " + std::to_string(served.unitId) +
               (served.moreUnits.empty()
                    ? std::string()
                    : " and " + std::to_string(served.moreUnits.size()) + " more") +
               "; data-store subscriptions open: " +
               std::to_string(cdshost::Store::instance().subscriptionCount()));
}

}  // namespace tarsel::daemon
