// A TLS context and session standing in for the module's: the session hands
// out the bytes of a script as if it had decrypted them from the socket, and
// takes every answer. Like a real session holding decrypted bytes, what it
// has to hand out does not make the socket readable: a daemon that waits
// for poll() to read them again waits forever.
#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "TlsContext.h"

namespace tarsel::daemon::testing {

/* What the scripted sessions share with the test. */
struct TlsScript {
    std::vector<std::uint8_t> input;   // what the client sends, in order
    std::size_t handedOut = 0;         // how much of it the daemon has read
    std::vector<std::uint8_t> output;  // every byte the daemon wrote
    bool sessionsFail = false;         // accept() cannot start a session
    bool handshakeFails = false;       // the handshake fails (a bad certificate)
    bool withoutRole = false;          // the certificate names no role
};

class ScriptedTlsSession final : public TlsSession {
  public:
    ScriptedTlsSession(int fd, std::shared_ptr<TlsScript> script)
        : m_fd(fd), m_script(std::move(script)) {}

    Step handshake() override {
        drainSocket();
        if (m_script->handshakeFails) {
            m_failure = "certificate verify failed";
            return Step::Failed;
        }
        m_established = true;
        return Step::Done;
    }
    bool established() const override { return m_established; }
    long read(unsigned char* buffer, std::size_t size) override {
        drainSocket();
        TlsScript& script = *m_script;
        std::size_t const count = std::min(size, script.input.size() - script.handedOut);
        std::memcpy(buffer, script.input.data() + script.handedOut, count);
        script.handedOut += count;
        return static_cast<long>(count);  // 0: nothing more now
    }
    long write(unsigned char const* buffer, std::size_t size) override {
        m_script->output.insert(m_script->output.end(), buffer, buffer + size);
        return static_cast<long>(size);
    }
    bool wantsWrite() const override { return false; }
    std::string const& failure() const override { return m_failure; }
    std::optional<std::string> peerRole() const override {
        return m_script->withoutRole ? std::nullopt : std::optional<std::string>("operator");
    }
    std::string peerSubject() const override { return "/CN=scripted"; }

  private:
    /* What the client writes to the socket only wakes the daemon up. */
    void drainSocket() {
        unsigned char bytes[256];
        while (::recv(m_fd, bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
        }
    }

    int m_fd;
    std::shared_ptr<TlsScript> m_script;
    bool m_established = false;
    std::string m_failure;
};

/* Sessions over one script, for a client of role "operator" (read-write). */
class ScriptedTlsContext final : public TlsContext {
  public:
    explicit ScriptedTlsContext(std::shared_ptr<TlsScript> script)
        : TlsContext({{"operator", RoleAccess::ReadWrite}}), m_script(std::move(script)) {}

    std::unique_ptr<TlsSession> accept(int fd) const override {
        if (m_script->sessionsFail) {
            throw std::runtime_error("TLS session: out of memory");
        }
        return std::make_unique<ScriptedTlsSession>(fd, m_script);
    }

  private:
    std::shared_ptr<TlsScript> m_script;
};

/* `count` copies of a request, one after the other. */
inline std::vector<std::uint8_t> repeated(std::vector<std::uint8_t> const& request,
                                          std::size_t count) {
    std::vector<std::uint8_t> bytes;
    bytes.reserve(request.size() * count);
    for (std::size_t i = 0; i < count; ++i) {
        bytes.insert(bytes.end(), request.begin(), request.end());
    }
    return bytes;
}

}  // namespace tarsel::daemon::testing
