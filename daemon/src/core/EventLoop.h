// The daemon's one thread: Modbus clients, signals and scenario events, all
// served from a single poll() loop, so the library is never called from two
// threads.
#pragma once

#include <functional>
#include <vector>

#include "DaemonCore.h"
#include "HttpServer.h"
#include "Log.h"
#include "ModbusServer.h"
#include "SignalPipe.h"

namespace tarsel::daemon {

/* What the loop serves besides the Modbus listeners. */
struct LoopExtras {
    // Called on SIGHUP, between two requests; nothing: SIGHUP is logged only.
    std::function<void()> reload;
    // The health and metrics endpoint; nothing when it is off.
    HttpServer* http = nullptr;
};

/* Runs until SIGINT or SIGTERM, or for runSeconds when that is above 0.
 * Returns the exit status. */
int runEventLoop(DaemonCore& core, std::vector<ModbusServer*> const& servers, SignalPipe& signals,
                 Log& log, double runSeconds, LoopExtras const& extras = {});

}  // namespace tarsel::daemon
