#include "TlsModule.h"

#include <dlfcn.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace tarsel::daemon {

std::optional<std::string> TlsModule::pathBesideProgram(char const* self) {
    std::error_code error;
    std::filesystem::path const program = std::filesystem::read_symlink(self, error);
    if (error || !program.is_absolute()) {
        return std::nullopt;
    }
    return pathBeside(program.string());
}

std::string TlsModule::pathBeside(std::string const& program) {
    std::filesystem::path const directory = std::filesystem::path(program).parent_path();
    return (directory / TARSEL_TLS_MODULE_FROM_PROGRAM).lexically_normal().string();
}

TlsModule::TlsModule(std::string path)
    : m_path(std::move(path)),
      // RTLD_NOW: a symbol OpenSSL lacks shows here, not at the first client.
      // RTLD_NODELETE: OpenSSL's exit handlers and the vtables of live
      // contexts stay mapped until the process exits.
      m_handle(::dlopen(m_path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE)) {
    if (m_handle == nullptr) {
        char const* const reason = ::dlerror();
        fail(reason != nullptr ? reason : "the loader gives no reason");
        return;
    }
    ::dlerror();
    void* const entry = ::dlsym(m_handle, kTlsModuleEntry);
    if (entry == nullptr) {
        fail(std::string(kTlsModuleEntry) + " is missing");
        return;
    }
    TlsModuleTable const* const table = tableOf(reinterpret_cast<TlsModuleEntry>(entry));
    if (m_failure.empty()) {
        check(table);
    }
}

TlsModuleTable const* TlsModule::tableOf(TlsModuleEntry entry) {
    // A module whose entry throws is one that cannot be loaded, not a
    // failure of the running daemon.
    try {
        return entry();
    } catch (std::exception const& error) {
        fail(std::string("its entry failed: ") + error.what());
    } catch (...) {
        fail("its entry failed");
    }
    return nullptr;
}

TlsModule::~TlsModule() {
    if (m_handle != nullptr) {
        ::dlclose(m_handle);
    }
}

void TlsModule::check(TlsModuleTable const* table) {
    if (table == nullptr || table->interface != kTlsModuleInterface || table->version == nullptr ||
        table->interfaceDigest == nullptr || table->makeContext == nullptr) {
        fail("it was built for another interface");
        return;
    }
    if (std::string(table->version) != TARSEL_DAEMON_VERSION) {
        fail(std::string("it was built for version ") + table->version + ", this program is " +
             TARSEL_DAEMON_VERSION);
        return;
    }
    if (std::string(table->interfaceDigest) != TARSEL_TLS_INTERFACE_DIGEST) {
        fail(std::string("it was built from other sources of version ") + TARSEL_DAEMON_VERSION +
             " (interface " + table->interfaceDigest + ", this program's " +
             TARSEL_TLS_INTERFACE_DIGEST + ")");
        return;
    }
    m_table = table;
}

void TlsModule::fail(std::string reason) {
    // The loader's reasons start with the file name, which is named already.
    std::string const prefix = m_path + ": ";
    if (reason.rfind(prefix, 0) == 0) {
        reason.erase(0, prefix.size());
    }
    m_failure = "cannot load the TLS module \"" + m_path + "\": " + reason;
}

std::shared_ptr<TlsContext const> TlsModule::makeContext(TlsConfig const& config) const {
    if (m_table == nullptr) {
        throw std::logic_error(m_failure);
    }
    return m_table->makeContext(config);
}

}  // namespace tarsel::daemon
