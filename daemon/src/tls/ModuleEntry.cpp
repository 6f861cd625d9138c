// The TLS module's one exported symbol: the table through which the daemon
// makes its OpenSSL context. Everything else in the module is hidden.
#include "OpenSslTls.h"
#include "TlsModuleEntry.h"

namespace {

std::unique_ptr<tarsel::daemon::TlsContext> makeContext(tarsel::daemon::TlsConfig const& config) {
    return std::make_unique<tarsel::daemon::OpenSslContext>(config);
}

constexpr tarsel::daemon::TlsModuleTable kTable{tarsel::daemon::kTlsModuleInterface,
                                                TARSEL_DAEMON_VERSION, TARSEL_TLS_INTERFACE_DIGEST,
                                                makeContext};

}  // namespace

extern "C" __attribute__((visibility("default"))) tarsel::daemon::TlsModuleTable const*
tarsel_modbusd_tls_module() {
    return &kTable;
}
