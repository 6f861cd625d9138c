#include "OpenSslTls.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <stdexcept>

namespace tarsel::daemon {

namespace {

std::string lastError() {
    unsigned long const code = ERR_get_error();
    ERR_clear_error();
    if (code == 0) {
        return "unknown error";
    }
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    return text;
}

void require(bool ok, std::string const& what) {
    if (!ok) {
        throw std::runtime_error("TLS: " + what + ": " + lastError());
    }
}

using Certificate = std::unique_ptr<X509, void (*)(X509*)>;

/* The daemon has no one to type a passphrase: an encrypted key is refused at
 * once, where OpenSSL would ask for one on the controlling terminal and hold
 * the start (and SIGTERM with it) until someone answered. */
int noPassphrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*data*/) {
    return 0;
}

}  // namespace

OpenSslContext::OpenSslContext(TlsConfig const& config) : TlsContext(config.roles) {
    m_context = SSL_CTX_new(TLS_server_method());
    require(m_context != nullptr, "cannot create a context");
    SSL_CTX_set_default_passwd_cb(m_context, noPassphrase);
    try {
        require(SSL_CTX_set_min_proto_version(m_context, TLS1_2_VERSION) == 1,
                "cannot require TLS 1.2");
        require(SSL_CTX_use_certificate_chain_file(m_context, config.certificateFile.c_str()) == 1,
                "cannot load the certificate " + config.certificateFile);
        require(
            SSL_CTX_use_PrivateKey_file(m_context, config.keyFile.c_str(), SSL_FILETYPE_PEM) == 1,
            "cannot load the key " + config.keyFile);
        require(SSL_CTX_check_private_key(m_context) == 1,
                "the key does not match the certificate");
        require(SSL_CTX_load_verify_locations(m_context, config.caFile.c_str(), nullptr) == 1,
                "cannot load the CA " + config.caFile);
        STACK_OF(X509_NAME)* const names = SSL_load_client_CA_file(config.caFile.c_str());
        require(names != nullptr, "cannot read the CA names of " + config.caFile);
        SSL_CTX_set_client_CA_list(m_context, names);
    } catch (...) {
        SSL_CTX_free(m_context);
        throw;
    }
    // No certificate, no session: every client is authenticated.
    SSL_CTX_set_verify(m_context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    // No session resumption: every connection shows its certificate again,
    // so one that expired cannot ride on an earlier session. Without tickets
    // nothing but answers arrives after the handshake either, which clients
    // that wait on a non-blocking socket for their answer rely on.
    SSL_CTX_set_num_tickets(m_context, 0);
    SSL_CTX_set_session_cache_mode(m_context, SSL_SESS_CACHE_OFF);
    // Answers are queued and sent in pieces as the socket takes them.
    SSL_CTX_set_mode(m_context,
                     SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
}

OpenSslContext::~OpenSslContext() {
    SSL_CTX_free(m_context);
}

std::unique_ptr<TlsSession> OpenSslContext::accept(int fd) const {
    return std::make_unique<OpenSslSession>(m_context, fd);
}

OpenSslSession::OpenSslSession(SSL_CTX* context, int fd) : m_ssl(SSL_new(context)) {
    if (m_ssl == nullptr || SSL_set_fd(m_ssl, fd) != 1) {
        SSL_free(m_ssl);
        throw std::runtime_error("TLS: cannot create a session: " + lastError());
    }
    SSL_set_accept_state(m_ssl);
}

OpenSslSession::~OpenSslSession() {
    // An established session ends with our close_notify, so that the client
    // can tell a session the daemon closed (its role has no access, it was
    // idle too long) from a connection cut short. One attempt: the socket does
    // not block, and the client's own close_notify is not waited for. Never
    // after a fatal error, where OpenSSL must not be asked to shut down.
    if (m_established && !m_fatal) {
        ERR_clear_error();
        SSL_shutdown(m_ssl);
        ERR_clear_error();
    }
    SSL_free(m_ssl);
}

long OpenSslSession::settle(int result) {
    int const error = SSL_get_error(m_ssl, result);
    m_wantsWrite = error == SSL_ERROR_WANT_WRITE;
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
        ERR_clear_error();
        return 0;
    }
    m_fatal = m_fatal || error == SSL_ERROR_SYSCALL || error == SSL_ERROR_SSL;
    if (m_failure.empty()) {
        long const verify = SSL_get_verify_result(m_ssl);
        if (error == SSL_ERROR_ZERO_RETURN) {
            m_failure = "closed by the client";
        } else if (verify != X509_V_OK) {
            m_failure = X509_verify_cert_error_string(verify);
        } else if (error == SSL_ERROR_SYSCALL && ERR_peek_error() == 0) {
            m_failure = "connection closed";
        } else {
            m_failure = lastError();
        }
    }
    ERR_clear_error();
    return -1;
}

TlsSession::Step OpenSslSession::handshake() {
    ERR_clear_error();
    int const result = SSL_do_handshake(m_ssl);
    if (result == 1) {
        m_established = true;
        m_wantsWrite = false;
        return Step::Done;
    }
    return settle(result) == 0 ? Step::Pending : Step::Failed;
}

long OpenSslSession::read(unsigned char* buffer, std::size_t size) {
    ERR_clear_error();
    std::size_t done = 0;
    if (SSL_read_ex(m_ssl, buffer, size, &done) == 1) {
        m_wantsWrite = false;
        return static_cast<long>(done);
    }
    return settle(0);
}

long OpenSslSession::write(unsigned char const* buffer, std::size_t size) {
    ERR_clear_error();
    std::size_t done = 0;
    if (SSL_write_ex(m_ssl, buffer, size, &done) == 1) {
        m_wantsWrite = false;
        return static_cast<long>(done);
    }
    return settle(0);
}

std::optional<std::string> OpenSslSession::peerRole() const {
    Certificate const certificate(SSL_get1_peer_certificate(m_ssl), X509_free);
    if (!certificate) {
        return std::nullopt;
    }
    std::unique_ptr<ASN1_OBJECT, void (*)(ASN1_OBJECT*)> const oid(OBJ_txt2obj(kRoleOid, 1),
                                                                   ASN1_OBJECT_free);
    int const index = X509_get_ext_by_OBJ(certificate.get(), oid.get(), -1);
    if (index < 0) {
        return std::nullopt;
    }
    ASN1_OCTET_STRING const* data = X509_EXTENSION_get_data(X509_get_ext(certificate.get(), index));
    unsigned char const* bytes = ASN1_STRING_get0_data(data);
    // The extension holds one DER UTF8String.
    std::unique_ptr<ASN1_UTF8STRING, void (*)(ASN1_UTF8STRING*)> const role(
        d2i_ASN1_UTF8STRING(nullptr, &bytes, ASN1_STRING_length(data)), ASN1_UTF8STRING_free);
    if (!role) {
        ERR_clear_error();
        return std::nullopt;
    }
    return std::string(reinterpret_cast<char const*>(ASN1_STRING_get0_data(role.get())),
                       static_cast<std::size_t>(ASN1_STRING_length(role.get())));
}

std::string OpenSslSession::peerSubject() const {
    Certificate const certificate(SSL_get1_peer_certificate(m_ssl), X509_free);
    if (!certificate) {
        return "(none)";
    }
    char text[256];
    X509_NAME_oneline(X509_get_subject_name(certificate.get()), text, sizeof text);
    return text;
}

}  // namespace tarsel::daemon
