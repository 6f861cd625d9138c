// The daemon's one thread: Modbus clients, signals and scenario events, all
// served from a single poll() loop, so the library is never called from two
// threads.
#pragma once

#include <vector>

#include "DaemonCore.h"
#include "Log.h"
#include "ModbusServer.h"
#include "SignalPipe.h"

namespace tarsel::daemon {

/* Runs until SIGINT or SIGTERM, or for runSeconds when that is above 0.
 * Returns the exit status. */
int runEventLoop(DaemonCore& core, std::vector<ModbusServer*> const& servers, SignalPipe& signals,
                 Log& log, double runSeconds);

}  // namespace tarsel::daemon
