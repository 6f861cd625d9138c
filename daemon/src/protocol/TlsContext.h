// The server side of Modbus/TCP Security: TLS 1.2 or later, a certificate
// of our own, client certificates checked against a configured CA, and the
// client's role read from its certificate's role extension.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

typedef struct ssl_ctx_st SSL_CTX;
typedef struct ssl_st SSL;

namespace tarsel::daemon {

/* What a certificate's role lets its holder do. */
enum class RoleAccess { ReadOnly, ReadWrite };

struct TlsConfig {
    std::string certificateFile;              // PEM, our certificate (and chain)
    std::string keyFile;                      // PEM, its private key
    std::string caFile;                       // PEM, the CA(s) client certificates must chain to
    std::map<std::string, RoleAccess> roles;  // role name -> what it may do
};

/* The role extension of Modbus/TCP Security client certificates. */
inline constexpr char kRoleOid[] = "1.3.6.1.4.1.50316.802.1";

class TlsContext {
  public:
    /* Loads the files; throws std::runtime_error naming what failed. */
    explicit TlsContext(TlsConfig config);
    ~TlsContext();

    TlsContext(TlsContext const&) = delete;
    TlsContext& operator=(TlsContext const&) = delete;

    SSL_CTX* native() const { return m_context; }
    /* What a role may do; nothing for a role the configuration does not name. */
    std::optional<RoleAccess> access(std::string const& role) const;

  private:
    TlsConfig m_config;
    SSL_CTX* m_context = nullptr;
};

/* One client's TLS session over its non-blocking socket. */
class TlsSession {
  public:
    TlsSession(TlsContext const& context, int fd);
    ~TlsSession();

    TlsSession(TlsSession const&) = delete;
    TlsSession& operator=(TlsSession const&) = delete;

    enum class Step { Done, Pending, Failed };
    /* Advances the handshake as far as the socket allows. */
    Step handshake();
    bool established() const { return m_established; }

    /* Like recv() and send() on a non-blocking socket: the bytes moved, 0
     * when it would block, -1 when the session is closed or failed. */
    long read(unsigned char* buffer, std::size_t size);
    long write(unsigned char const* buffer, std::size_t size);

    /* True when the last operation waits for the socket to take data. */
    bool wantsWrite() const { return m_wantsWrite; }
    /* Why the handshake or the session failed, for the log. */
    std::string const& failure() const { return m_failure; }

    /* The role of the client's certificate; nothing when it has none. */
    std::optional<std::string> peerRole() const;
    /* The subject of the client's certificate, one line. */
    std::string peerSubject() const;

  private:
    /* -1 when failed, 0 when it must wait; records why it failed. */
    long settle(int result);

    SSL* m_ssl = nullptr;
    bool m_established = false;
    bool m_wantsWrite = false;
    std::string m_failure;
};

}  // namespace tarsel::daemon
