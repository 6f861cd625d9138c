// A stand-in for the TLS module of another build: its table is the real
// one's but for the interface (TABLE_INTERFACE) or the version
// (TABLE_VERSION) it names. It makes no context: the loader must refuse it
// before anything is called.
#include "TlsModuleEntry.h"

namespace {

std::unique_ptr<tarsel::daemon::TlsContext> noContext(tarsel::daemon::TlsConfig const&) {
    return nullptr;
}

constexpr tarsel::daemon::TlsModuleTable kTable{TABLE_INTERFACE, TABLE_VERSION, noContext};

}  // namespace

extern "C" __attribute__((visibility("default"))) tarsel::daemon::TlsModuleTable const*
tarsel_modbusd_tls_module() {
    return &kTable;
}
