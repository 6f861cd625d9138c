// What the TLS module (tls/) exports and the daemon (TlsModule) looks up: one
// C function returning a table. The table names the interface, the project
// version and the digest of this header and TlsContext.h it was built with,
// so that a module of another build is refused by name instead of being
// called with classes of another layout.
#pragma once

#include <memory>

#include "TlsContext.h"

namespace tarsel::daemon {

/* Raised whenever TlsContext, TlsSession, TlsConfig or this table change. */
inline constexpr unsigned kTlsModuleInterface = 2;

struct TlsModuleTable {
    unsigned interface;   // kTlsModuleInterface of the module's build
    char const* version;  // the project version of the module's build
    // The digest of the headers the module was built with (CMake's
    // TARSEL_TLS_INTERFACE_DIGEST): builds of one version from different
    // sources differ here even when nobody raised the interface number.
    char const* interfaceDigest;
    /* Loads the configuration's files; throws std::runtime_error naming what
     * failed. The context's code lives in the module: it must not outlive
     * the module's mapping (which the daemon never unmaps). */
    std::unique_ptr<TlsContext> (*makeContext)(TlsConfig const& config);
};

/* The one symbol the module exports. */
inline constexpr char kTlsModuleEntry[] = "tarsel_modbusd_tls_module";
using TlsModuleEntry = TlsModuleTable const* (*)();

}  // namespace tarsel::daemon
