#include "StatusReport.h"

namespace tarsel::daemon {

DaemonStatus gatherStatus(DaemonCore& core, std::vector<ModbusServer*> const& servers,
                          Metrics const& metrics, std::chrono::steady_clock::time_point now) {
    DaemonStatus status;
    status.listeners = servers.size();
    for (ModbusServer const* server : servers) {
        status.listening += server->listening() ? 1 : 0;
        status.clients += server->clientCount();
        status.connections += server->connectionCounts();
    }
    status.mapAvailable = core.availability().isAvailable();
    if (!status.mapAvailable) {
        status.notAvailable = core.availability().notAvailableMessage();
    }
    status.pendingEntries = core.pendingEntries();
    if (DataSource const* source = core.source()) {
        status.hasSource = true;
        status.source = source->status(now);
    }
    status.pushes = metrics.retiredPushes() + core.totalPushes();
    status.metrics = &metrics;
    return status;
}

}  // namespace tarsel::daemon
