// What the TLS module (tls/) exports and the daemon (TlsModule) looks up: one
// C function returning a table. The table names the interface and the
// project version it was built for, so that a module of another build is
// refused by name instead of being called with classes of another layout.
#pragma once

#include <memory>

#include "TlsContext.h"

namespace tarsel::daemon {

/* Raised whenever TlsContext, TlsSession, TlsConfig or this table change. */
inline constexpr unsigned kTlsModuleInterface = 1;

struct TlsModuleTable {
    unsigned interface;   // kTlsModuleInterface of the module's build
    char const* version;  // the project version of the module's build
    /* Loads the configuration's files; throws std::runtime_error naming what
     * failed. The context's code lives in the module: it must not outlive
     * the module's mapping (which the daemon never unmaps). */
    std::unique_ptr<TlsContext> (*makeContext)(TlsConfig const& config);
};

/* The one symbol the module exports. */
inline constexpr char kTlsModuleEntry[] = "tarsel_modbusd_tls_module";
using TlsModuleEntry = TlsModuleTable const* (*)();

}  // namespace tarsel::daemon
