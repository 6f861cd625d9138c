#include "sources/nut/UpsClientLibrary.h"

#include <dlfcn.h>

namespace tarsel::daemon::nut {

UpsClientLibrary const& UpsClientLibrary::instance() {
    // A function-local static: loaded once, whichever thread comes first.
    static UpsClientLibrary const library(TARSEL_UPSCLIENT_SONAME);
    return library;
}

UpsClientLibrary::UpsClientLibrary(char const* fileName)
    // RTLD_NOW: a missing function shows here, not in a poller's first call.
    : m_handle(::dlopen(fileName, RTLD_NOW | RTLD_LOCAL)) {
    if (m_handle == nullptr) {
        m_failure = std::string("cannot load NUT's client library: ") + ::dlerror();
        return;
    }
    resolve(tryconnect, "upscli_tryconnect");
    resolve(disconnect, "upscli_disconnect");
    resolve(list_start, "upscli_list_start");
    resolve(list_next, "upscli_list_next");
    resolve(sendline_timeout, "upscli_sendline_timeout");
    resolve(readline_timeout, "upscli_readline_timeout");
    resolve(upserror, "upscli_upserror");
    resolve(strerror, "upscli_strerror");
}

template <typename Function>
void UpsClientLibrary::resolve(Function& function, char const* name) {
    if (!m_failure.empty()) {
        return;
    }
    ::dlerror();
    void* const symbol = ::dlsym(m_handle, name);
    if (symbol == nullptr) {
        m_failure = std::string("cannot load NUT's client library: ") + name + " is missing";
        return;
    }
    // POSIX guarantees that a function's address survives this round trip.
    function = reinterpret_cast<Function>(symbol);
}

}  // namespace tarsel::daemon::nut
