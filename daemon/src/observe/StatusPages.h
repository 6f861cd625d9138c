// The two pages of the health and metrics endpoint, from a snapshot of the
// daemon's state: /healthz (is the daemon doing its job) and /metrics (the
// Prometheus text of its counters). Pure functions of the snapshot.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "ConnectionCounts.h"
#include "HttpRequest.h"
#include "Metrics.h"
#include "sources/DataSource.h"

namespace tarsel::daemon {

struct DaemonStatus {
    std::size_t listeners = 0;  // Modbus listeners configured
    std::size_t listening = 0;  // of which accept connections now
    bool mapAvailable = false;  // the availability check opens the map
    std::string notAvailable;   // the check's text while it does not
    std::size_t pendingEntries = 0;
    bool hasSource = false;  // false: nothing changes the store
    SourceStatus source;
    std::size_t clients = 0;  // Modbus clients connected, all listeners
    std::uint64_t pushes = 0;
    Metrics const* metrics = nullptr;
    ConnectionCounts connections;  // all listeners
};

/* 200 with {"status": "ok", ...} when every listener listens, the map is
 * available and the source is fresh; 503 with what failed otherwise. */
HttpResponse healthResponse(DaemonStatus const& status);
/* 200 with the Prometheus text exposition. */
HttpResponse metricsResponse(DaemonStatus const& status);
/* /healthz, /metrics; 404 for anything else. */
HttpResponse statusPage(DaemonStatus const& status, HttpRequest const& request);

}  // namespace tarsel::daemon
