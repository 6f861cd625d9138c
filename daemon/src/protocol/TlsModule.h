// The TLS module (tls/, the OpenSSL code), loaded when --tls-port is
// configured rather than linked into the program: libcrypto and libssl cost a
// daemon that serves no TLS about 1.7 MiB of resident pages that the dynamic
// loader touches at start-up (relocations, constructors) for nothing.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "TlsContext.h"
#include "TlsModuleEntry.h"

namespace tarsel::daemon {

class TlsModule {
  public:
    /* The link to the running program's file. */
    static constexpr char const* kProgramLink = "/proc/self/exe";

    /* Where the program looks for its module: beside itself, as the module
     * is installed (and laid out in the build tree) relative to the program,
     * so that a daemon finds its own module and never another build's. The
     * program's file is read from the link `self`; nothing when it cannot
     * be (no /proc): a path relative to the working directory would name
     * whatever file is there, anyone's. */
    static std::optional<std::string> pathBesideProgram(char const* self = kProgramLink);
    /* The same for a program of that file. */
    static std::string pathBeside(std::string const& program);

    /* Loads the module of that file and checks its table; failure() says
     * why not when it cannot. */
    explicit TlsModule(std::string path);
    /* The module stays mapped (it is loaded never to be unmapped): contexts
     * made by it may outlive this object. */
    ~TlsModule();

    TlsModule(TlsModule const&) = delete;
    TlsModule& operator=(TlsModule const&) = delete;

    bool loaded() const { return m_failure.empty(); }
    /* "cannot load the TLS module "<path>": <the loader's reason>". */
    std::string const& failure() const { return m_failure; }
    std::string const& path() const { return m_path; }

    /* Loads the configuration's files into a context; throws
     * std::runtime_error naming what failed. Only when loaded(). */
    std::shared_ptr<TlsContext const> makeContext(TlsConfig const& config) const;

  private:
    void fail(std::string reason);
    /* The module's table, from its entry (POSIX guarantees that a
     * function's address survives the round trip through dlsym()); nothing
     * when the entry throws, which failure() then says. */
    TlsModuleTable const* tableOf(TlsModuleEntry entry);
    void check(TlsModuleTable const* table);

    std::string m_path;
    void* m_handle = nullptr;
    TlsModuleTable const* m_table = nullptr;
    std::string m_failure;
};

}  // namespace tarsel::daemon
