// What the health and metrics endpoint shows, gathered from the running
// daemon at the moment of a request, on the loop's thread.
#pragma once

#include <chrono>
#include <vector>

#include "DaemonCore.h"
#include "Metrics.h"
#include "ModbusServer.h"
#include "StatusPages.h"

namespace tarsel::daemon {

DaemonStatus gatherStatus(DaemonCore& core, std::vector<ModbusServer*> const& servers,
                          Metrics const& metrics, std::chrono::steady_clock::time_point now);

}  // namespace tarsel::daemon
