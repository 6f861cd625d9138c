// The server side of Modbus/TCP Security as the daemon sees it: TLS 1.2 or
// later, a certificate of our own, client certificates checked against a
// configured CA, and the client's role read from its certificate's role
// extension. Only the interface lives here: the implementation (over OpenSSL)
// is a module of its own (tls/, loaded by TlsModule when TLS is configured),
// so that a daemon without TLS maps neither libssl nor libcrypto. Everything
// here is inline: the module derives from these classes without linking
// anything of the daemon.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

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

/* One client's TLS session over its non-blocking socket. */
class TlsSession {
  public:
    virtual ~TlsSession() = default;

    TlsSession(TlsSession const&) = delete;
    TlsSession& operator=(TlsSession const&) = delete;

    enum class Step { Done, Pending, Failed };
    /* Advances the handshake as far as the socket allows. */
    virtual Step handshake() = 0;
    virtual bool established() const = 0;

    /* Like recv() and send() on a non-blocking socket: the bytes moved, 0
     * when it would block, -1 when the session is closed or failed. */
    virtual long read(unsigned char* buffer, std::size_t size) = 0;
    virtual long write(unsigned char const* buffer, std::size_t size) = 0;

    /* True when the last operation waits for the socket to take data. */
    virtual bool wantsWrite() const = 0;
    /* Why the handshake or the session failed, for the log. */
    virtual std::string const& failure() const = 0;

    /* The role of the client's certificate; nothing when it has none. */
    virtual std::optional<std::string> peerRole() const = 0;
    /* The subject of the client's certificate, one line. */
    virtual std::string peerSubject() const = 0;

  protected:
    TlsSession() = default;
};

/* Our certificate, key and CA, loaded once; a session per accepted client. */
class TlsContext {
  public:
    virtual ~TlsContext() = default;

    TlsContext(TlsContext const&) = delete;
    TlsContext& operator=(TlsContext const&) = delete;

    /* A server-side session over an accepted client's socket, its handshake
     * not started; throws std::runtime_error when none can be made. The
     * session does not own the socket and must not outlive this context. */
    virtual std::unique_ptr<TlsSession> accept(int fd) const = 0;

    /* What a role may do; nothing for a role the configuration does not name. */
    std::optional<RoleAccess> access(std::string const& role) const {
        auto const found = m_roles.find(role);
        if (found == m_roles.end()) {
            return std::nullopt;
        }
        return found->second;
    }

  protected:
    explicit TlsContext(std::map<std::string, RoleAccess> roles) : m_roles(std::move(roles)) {}

  private:
    std::map<std::string, RoleAccess> m_roles;
};

}  // namespace tarsel::daemon
