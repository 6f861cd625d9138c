// A stand-in for the TLS module of another build: its table is the real
// one's but for the interface (TABLE_INTERFACE), the version (TABLE_VERSION)
// or the digest of the interface's headers (TABLE_DIGEST) it names. It makes
// no context: the loader must refuse it before anything is called.
#include "TlsModuleEntry.h"

namespace {

std::unique_ptr<tarsel::daemon::TlsContext> noContext(tarsel::daemon::TlsConfig const&) {
    return nullptr;
}

constexpr tarsel::daemon::TlsModuleTable kTable{TABLE_INTERFACE, TABLE_VERSION, TABLE_DIGEST,
                                                noContext};

}  // namespace

extern "C" __attribute__((visibility("default"))) tarsel::daemon::TlsModuleTable const*
tarsel_modbusd_tls_module() {
    return &kTable;
}
