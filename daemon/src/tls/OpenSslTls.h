// TlsContext and TlsSession over OpenSSL: the code of the TLS module, which
// alone links libssl and libcrypto. The daemon reaches it through the module's
// table (TlsModuleEntry.h); the unit tests link it directly.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "TlsContext.h"

typedef struct ssl_ctx_st SSL_CTX;
typedef struct ssl_st SSL;

namespace tarsel::daemon {

class OpenSslContext final : public TlsContext {
  public:
    /* Loads the files; throws std::runtime_error naming what failed. */
    explicit OpenSslContext(TlsConfig const& config);
    ~OpenSslContext() override;

    std::unique_ptr<TlsSession> accept(int fd) const override;

  private:
    SSL_CTX* m_context = nullptr;
};

class OpenSslSession final : public TlsSession {
  public:
    /* Throws std::runtime_error when OpenSSL cannot make the session. */
    OpenSslSession(SSL_CTX* context, int fd);
    ~OpenSslSession() override;

    Step handshake() override;
    bool established() const override { return m_established; }
    long read(unsigned char* buffer, std::size_t size) override;
    long write(unsigned char const* buffer, std::size_t size) override;
    bool wantsWrite() const override { return m_wantsWrite; }
    std::string const& failure() const override { return m_failure; }
    std::optional<std::string> peerRole() const override;
    std::string peerSubject() const override;

  private:
    /* -1 when failed, 0 when it must wait; records why it failed. */
    long settle(int result);

    SSL* m_ssl = nullptr;
    bool m_established = false;
    bool m_wantsWrite = false;
    // The connection failed in a way after which it must not be shut down.
    bool m_fatal = false;
    std::string m_failure;
};

}  // namespace tarsel::daemon
