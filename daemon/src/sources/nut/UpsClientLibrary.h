// NUT's client library (libupsclient), loaded when the daemon first talks to
// upsd rather than linked into the program: Debian builds it with NSS, whose
// six libraries (about 0.7 MiB resident) a daemon without --nut would carry
// for nothing. NUT's C++ client (libnutclient), which needs no NSS, is no
// substitute: its reads and connects ignore its timeout, so a hung upsd
// would hang a poller for good.
#pragma once

// upsclient.h uses uint16_t without including its header.
#include <cstdint>

#include <sys/time.h>
#include <upsclient.h>

#include <string>

namespace tarsel::daemon::nut {

class UpsClientLibrary {
  public:
    /* The library the program was built against, loaded once for the
     * process, at the first call from any thread; never unloaded. It is not
     * initialised: upscli_init sets up SSL (NSS, which Debian builds it
     * with) for connections that ask for it, and the daemon's never do
     * (upsd on this machine or the local network). Initialising it anyway
     * started NSS for nothing and wrote "Init SSL without certificate
     * database" on stderr, outside the daemon's log format; the library
     * would initialise itself before any SSL it were asked for. */
    static UpsClientLibrary const& instance();

    /* Loads the library of that file name and resolves its functions;
     * failure() says why not when it cannot. Does not initialise it. */
    explicit UpsClientLibrary(char const* fileName);

    UpsClientLibrary(UpsClientLibrary const&) = delete;
    UpsClientLibrary& operator=(UpsClientLibrary const&) = delete;

    bool loaded() const { return m_failure.empty(); }
    /* "cannot load NUT's client library: <the loader's reason>". */
    std::string const& failure() const { return m_failure; }

    // The functions the daemon calls, with the header's own signatures;
    // every one is set when loaded().
    decltype(&::upscli_tryconnect) tryconnect = nullptr;
    decltype(&::upscli_disconnect) disconnect = nullptr;
    decltype(&::upscli_list_start) list_start = nullptr;
    decltype(&::upscli_list_next) list_next = nullptr;
    decltype(&::upscli_sendline_timeout) sendline_timeout = nullptr;
    decltype(&::upscli_readline_timeout) readline_timeout = nullptr;
    decltype(&::upscli_upserror) upserror = nullptr;
    decltype(&::upscli_strerror) strerror = nullptr;

  private:
    template <typename Function>
    void resolve(Function& function, char const* name);

    void* m_handle = nullptr;
    std::string m_failure;
};

}  // namespace tarsel::daemon::nut
