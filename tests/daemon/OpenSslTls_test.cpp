// The OpenSSL side of TLS, linked directly (the daemon loads it as a module):
// a handshake over a socket pair with certificates made for the test, the
// client's role and subject read from its certificate, bytes both ways, and
// the failures that name their reason.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "OpenSslTls.h"

namespace tarsel::daemon {
namespace {

namespace fs = std::filesystem;

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;
using Ssl = std::unique_ptr<SSL, decltype(&SSL_free)>;
using SslContext = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;

Key newKey() {
    return Key(EVP_EC_gen("P-256"), EVP_PKEY_free);
}

void addExtension(X509* certificate, X509* issuer, int nid, char const* value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
    ASSERT_NE(extension, nullptr);
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

/* The role extension: one DER UTF8String. */
void addRole(X509* certificate, std::string const& role) {
    std::string der = {0x0C, static_cast<char>(role.size())};
    der += role;
    std::unique_ptr<ASN1_OBJECT, decltype(&ASN1_OBJECT_free)> const oid(OBJ_txt2obj(kRoleOid, 1),
                                                                        ASN1_OBJECT_free);
    std::unique_ptr<ASN1_OCTET_STRING, decltype(&ASN1_OCTET_STRING_free)> const data(
        ASN1_OCTET_STRING_new(), ASN1_OCTET_STRING_free);
    ASN1_OCTET_STRING_set(data.get(), reinterpret_cast<unsigned char const*>(der.data()),
                          static_cast<int>(der.size()));
    X509_EXTENSION* const extension =
        X509_EXTENSION_create_by_OBJ(nullptr, oid.get(), 0, data.get());
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

/* A certificate of that common name for key, signed by the issuer (itself
 * when there is none), valid from an hour ago for a day. */
Certificate issue(std::string const& commonName, EVP_PKEY* key, X509* issuer, EVP_PKEY* issuerKey,
                  bool ca, std::string const& role = "") {
    Certificate certificate(X509_new(), X509_free);
    X509* const raw = certificate.get();
    X509_set_version(raw, 2);
    static long serial = 1;
    ASN1_INTEGER_set(X509_get_serialNumber(raw), ++serial);
    X509_gmtime_adj(X509_getm_notBefore(raw), -3600);
    X509_gmtime_adj(X509_getm_notAfter(raw), 86400);
    X509_set_pubkey(raw, key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(raw), "CN", MBSTRING_ASC,
                               reinterpret_cast<unsigned char const*>(commonName.c_str()), -1, -1,
                               0);
    X509_set_issuer_name(raw, X509_get_subject_name(issuer != nullptr ? issuer : raw));
    addExtension(raw, issuer != nullptr ? issuer : raw, NID_basic_constraints,
                 ca ? "critical,CA:TRUE" : "critical,CA:FALSE");
    if (ca) {
        addExtension(raw, raw, NID_key_usage, "critical,keyCertSign,cRLSign,digitalSignature");
    }
    if (!role.empty()) {
        addRole(raw, role);
    }
    X509_sign(raw, issuerKey != nullptr ? issuerKey : key, EVP_sha256());
    return certificate;
}

class OpenSslTlsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        m_dir = fs::temp_directory_path() / ("tarsel-openssl-" + std::to_string(::getpid()));
        fs::create_directories(m_dir);
        m_caKey = newKey();
        m_ca = issue("Test CA", m_caKey.get(), nullptr, nullptr, true);
        write("ca", m_ca.get(), m_caKey.get());
        Key const serverKey = newKey();
        write("server", issue("server", serverKey.get(), m_ca.get(), m_caKey.get(), false).get(),
              serverKey.get());
        m_config.certificateFile = file("server.pem");
        m_config.keyFile = file("server.key");
        m_config.caFile = file("ca.pem");
        m_config.roles = {{"operator", RoleAccess::ReadWrite}};
        int fds[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
        m_serverFd = fds[0];
        m_clientFd = fds[1];
    }

    void TearDown() override {
        ::close(m_serverFd);
        ::close(m_clientFd);
        fs::remove_all(m_dir);
    }

    std::string file(std::string const& name) const { return (m_dir / name).string(); }

    void write(std::string const& name, X509* certificate, EVP_PKEY* key) const {
        std::unique_ptr<FILE, decltype(&std::fclose)> pem(
            std::fopen(file(name + ".pem").c_str(), "w"), std::fclose);
        PEM_write_X509(pem.get(), certificate);
        std::unique_ptr<FILE, decltype(&std::fclose)> keyFile(
            std::fopen(file(name + ".key").c_str(), "w"), std::fclose);
        PEM_write_PrivateKey(keyFile.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
    }

    /* A client over the other end of the pair, with a certificate of that
     * name and role when name is not empty; it does not check the server. */
    Ssl client(std::string const& name, std::string const& role) {
        m_clientContext.reset(SSL_CTX_new(TLS_client_method()));
        if (!name.empty()) {
            Key const key = newKey();
            Certificate const certificate =
                issue(name, key.get(), m_ca.get(), m_caKey.get(), false, role);
            SSL_CTX_use_certificate(m_clientContext.get(), certificate.get());
            SSL_CTX_use_PrivateKey(m_clientContext.get(), key.get());
        }
        Ssl ssl(SSL_new(m_clientContext.get()), SSL_free);
        SSL_set_fd(ssl.get(), m_clientFd);
        SSL_set_connect_state(ssl.get());
        return ssl;
    }

    /* Both ends' handshakes advanced in turn until the server's is done or
     * failed (a bounded number of turns). */
    TlsSession::Step handshake(TlsSession& server, SSL* client) {
        for (int turn = 0; turn < 200; ++turn) {
            SSL_do_handshake(client);
            if (SSL_is_init_finished(client)) {
                // TLS 1.3: the client is done first; its reads carry the
                // server's verdict on its certificate.
                unsigned char byte;
                std::size_t read = 0;
                SSL_read_ex(client, &byte, 1, &read);
            }
            ERR_clear_error();
            TlsSession::Step const step = server.handshake();
            if (step != TlsSession::Step::Pending) {
                return step;
            }
        }
        return TlsSession::Step::Pending;
    }

    fs::path m_dir;
    Key m_caKey{nullptr, EVP_PKEY_free};
    Certificate m_ca{nullptr, X509_free};
    TlsConfig m_config;
    SslContext m_clientContext{nullptr, SSL_CTX_free};
    int m_serverFd = -1;
    int m_clientFd = -1;
};

TEST_F(OpenSslTlsTest, AClientWithARoleIsAuthenticatedAndItsRoleAndSubjectAreRead) {
    OpenSslContext const context(m_config);
    std::unique_ptr<TlsSession> const server = context.accept(m_serverFd);
    Ssl const tls = client("operator", "operator");
    ASSERT_EQ(handshake(*server, tls.get()), TlsSession::Step::Done) << server->failure();
    EXPECT_TRUE(server->established());
    EXPECT_EQ(server->peerRole(), std::optional<std::string>("operator"));
    EXPECT_EQ(server->peerSubject(), "/CN=operator");
    EXPECT_EQ(context.access("operator"), RoleAccess::ReadWrite);
    EXPECT_EQ(context.access("viewer"), std::nullopt);
}

TEST_F(OpenSslTlsTest, BytesTravelBothWaysAndNothingToReadIsZero) {
    OpenSslContext const context(m_config);
    std::unique_ptr<TlsSession> const server = context.accept(m_serverFd);
    Ssl const tls = client("operator", "operator");
    ASSERT_EQ(handshake(*server, tls.get()), TlsSession::Step::Done) << server->failure();
    unsigned char buffer[16] = {};
    EXPECT_EQ(server->read(buffer, sizeof buffer), 0);
    std::size_t moved = 0;
    ASSERT_EQ(SSL_write_ex(tls.get(), "ping", 4, &moved), 1);
    EXPECT_EQ(server->read(buffer, sizeof buffer), 4);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), 4), "ping");
    unsigned char const pong[] = {'p', 'o', 'n', 'g'};
    EXPECT_EQ(server->write(pong, sizeof pong), 4);
    char answer[16] = {};
    ASSERT_EQ(SSL_read_ex(tls.get(), answer, sizeof answer, &moved), 1);
    EXPECT_EQ(std::string(answer, moved), "pong");
}

TEST_F(OpenSslTlsTest, ACertificateWithoutTheRoleExtensionHasNoRole) {
    OpenSslContext const context(m_config);
    std::unique_ptr<TlsSession> const server = context.accept(m_serverFd);
    Ssl const tls = client("no-role", "");
    ASSERT_EQ(handshake(*server, tls.get()), TlsSession::Step::Done) << server->failure();
    EXPECT_EQ(server->peerRole(), std::nullopt);
    EXPECT_EQ(server->peerSubject(), "/CN=no-role");
}

TEST_F(OpenSslTlsTest, AClientWithoutACertificateFailsTheHandshakeWithOpenSslsReason) {
    OpenSslContext const context(m_config);
    std::unique_ptr<TlsSession> const server = context.accept(m_serverFd);
    Ssl const tls = client("", "");
    ASSERT_EQ(handshake(*server, tls.get()), TlsSession::Step::Failed);
    EXPECT_FALSE(server->established());
    EXPECT_NE(server->failure().find("certificate"), std::string::npos) << server->failure();
}

TEST_F(OpenSslTlsTest, AnEstablishedSessionEndsWithACloseNotifyToItsClient) {
    OpenSslContext const context(m_config);
    std::unique_ptr<TlsSession> server = context.accept(m_serverFd);
    Ssl const tls = client("operator", "operator");
    ASSERT_EQ(handshake(*server, tls.get()), TlsSession::Step::Done) << server->failure();
    server.reset();
    // The socket itself stays open: only a close_notify ends the client's
    // read (TLS 1.3's session tickets before it are taken on the way).
    char byte = 0;
    std::size_t read = 0;
    EXPECT_EQ(SSL_read_ex(tls.get(), &byte, 1, &read), 0);
    EXPECT_EQ(SSL_get_error(tls.get(), 0), SSL_ERROR_ZERO_RETURN);
}

TEST_F(OpenSslTlsTest, AClientsCloseNotifyIsAnsweredWithOursWhenTheSessionEnds) {
    OpenSslContext const context(m_config);
    std::unique_ptr<TlsSession> server = context.accept(m_serverFd);
    Ssl const tls = client("operator", "operator");
    ASSERT_EQ(handshake(*server, tls.get()), TlsSession::Step::Done) << server->failure();
    ASSERT_EQ(SSL_shutdown(tls.get()), 0);  // sent; the server's not yet heard
    unsigned char buffer[16] = {};
    EXPECT_EQ(server->read(buffer, sizeof buffer), -1);
    EXPECT_EQ(server->failure(), "closed by the client");
    server.reset();
    EXPECT_EQ(SSL_shutdown(tls.get()), 1);  // both sides have said it
}

TEST_F(OpenSslTlsTest, AKeyOfAnotherCertificateIsRefusedNamingTheKeyFileAndWhy) {
    m_config.keyFile = file("ca.key");
    try {
        OpenSslContext const context(m_config);
        FAIL() << "a context with the CA's key for the server's certificate";
    } catch (std::runtime_error const& error) {
        std::string const what = error.what();
        EXPECT_EQ(what.rfind("TLS: cannot load the key " + file("ca.key") + ": ", 0), 0u) << what;
        EXPECT_NE(what.find("key values mismatch"), std::string::npos) << what;
    }
}

TEST_F(OpenSslTlsTest, AnEncryptedKeyIsRefusedWithoutAskingForItsPassphrase) {
    // Asked on a controlling terminal, the passphrase would hold the start;
    // without one, OpenSSL's prompt fails with a reason that says nothing
    // of the key. Refused at once, the key cannot be decrypted.
    Key const key = newKey();
    std::string const path = file("encrypted.key");
    {
        std::unique_ptr<FILE, decltype(&std::fclose)> out(std::fopen(path.c_str(), "w"),
                                                          std::fclose);
        unsigned char passphrase[] = "secret";
        ASSERT_EQ(PEM_write_PrivateKey(out.get(), key.get(), EVP_aes_256_cbc(), passphrase, 6,
                                       nullptr, nullptr),
                  1);
    }
    m_config.keyFile = path;
    try {
        OpenSslContext const context(m_config);
        FAIL() << "a context with a key it cannot decrypt";
    } catch (std::runtime_error const& error) {
        std::string const what = error.what();
        EXPECT_EQ(what.rfind("TLS: cannot load the key " + path + ": ", 0), 0u) << what;
        EXPECT_NE(what.find("bad decrypt"), std::string::npos) << what;
    }
}

}  // namespace
}  // namespace tarsel::daemon
