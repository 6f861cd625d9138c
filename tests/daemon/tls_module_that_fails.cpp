// A stand-in for a TLS module whose entry gives no table: it returns none,
// or throws when built with ENTRY_THROWS. The loader must refuse it
// as a module it cannot load, not pass on what the entry threw.
#include <stdexcept>

#include "TlsModuleEntry.h"

extern "C" __attribute__((visibility("default"))) tarsel::daemon::TlsModuleTable const*
tarsel_modbusd_tls_module() {
#ifdef ENTRY_THROWS
    throw std::runtime_error("no table here");
#else
    return nullptr;
#endif
}
