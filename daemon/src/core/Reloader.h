// SIGHUP: the configuration is built afresh (command line and files) and,
// when it can be served, its maps replace the running ones while clients
// stay connected. A configuration that cannot be served, or that changes
// what only a restart can (listeners, data source, files opened at start),
// is refused whole: its errors are logged and the running maps are kept.
#pragma once

#include <functional>
#include <vector>

#include "Configuration.h"
#include "DaemonCore.h"
#include "Log.h"
#include "Metrics.h"
#include "ModbusServer.h"

namespace tarsel::daemon {

/* The listeners a reload hands the new handler and access rules to. */
struct ReloadListeners {
    ModbusServer* plain = nullptr;
    ModbusServer* secure = nullptr;  // Modbus/TCP Security; nothing without --tls-port
};

class Reloader {
  public:
    /* Builds a new configuration; throws ConfigurationError or any
     * std::exception when it cannot. */
    using Load = std::function<Configuration()>;
    /* Run after every reload, applied or refused, once what it loaded and
     * what it replaced are freed; nothing: nothing is run. */
    using AfterReload = std::function<void()>;

    /* `running`: the options the daemon runs with now. The core, the
     * listeners, the metrics (may be null) and the log must outlive it. */
    Reloader(Load load, Options running, DaemonCore& core, ReloadListeners listeners,
             Metrics* metrics, Log& log, AfterReload afterReload = {});

    /* Loads and applies; logs every error and one line with the outcome.
     * True when the new maps are served. Only on the loop's thread, between
     * two requests. */
    bool reload();

  private:
    bool loadAndApply();
    bool refuse(std::vector<Refusal> const& refusals);
    void apply(Configuration const& next, ServedConfig const& served);

    Load m_load;
    Options m_running;
    DaemonCore& m_core;
    ReloadListeners m_listeners;
    Metrics* m_metrics;
    Log& m_log;
    AfterReload m_afterReload;
};

}  // namespace tarsel::daemon
