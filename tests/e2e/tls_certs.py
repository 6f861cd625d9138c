"""Certificates for the TLS tests, made fresh in a directory: a CA, the
daemon's certificate, client certificates with and without a role, an
expired one and one from another CA."""
import datetime
import os

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.x509.oid import NameOID

ROLE_OID = x509.ObjectIdentifier("1.3.6.1.4.1.50316.802.1")
NOW = datetime.datetime.now(datetime.timezone.utc).replace(tzinfo=None)
DAY = datetime.timedelta(days=1)


def _name(common_name):
    return x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, common_name)])


def _der_utf8(text):
    data = text.encode("utf-8")
    assert len(data) < 128
    return bytes([0x0C, len(data)]) + data


def _write(directory, name, key, certificate):
    key_path = os.path.join(directory, name + ".key")
    cert_path = os.path.join(directory, name + ".pem")
    with open(key_path, "wb") as f:
        f.write(key.private_bytes(serialization.Encoding.PEM,
                                  serialization.PrivateFormat.PKCS8,
                                  serialization.NoEncryption()))
    with open(cert_path, "wb") as f:
        f.write(certificate.public_bytes(serialization.Encoding.PEM))
    return cert_path, key_path


def _certificate(subject, key, issuer, issuer_key, ca=False, role=None, not_before=None,
                 not_after=None, server=False):
    builder = (x509.CertificateBuilder()
               .subject_name(_name(subject))
               .issuer_name(_name(issuer))
               .public_key(key.public_key())
               .serial_number(x509.random_serial_number())
               .not_valid_before(not_before or NOW - DAY)
               .not_valid_after(not_after or NOW + 30 * DAY)
               .add_extension(x509.BasicConstraints(ca=ca, path_length=None), critical=True))
    if ca:
        builder = builder.add_extension(
            x509.KeyUsage(digital_signature=True, key_cert_sign=True, crl_sign=True,
                          content_commitment=False, key_encipherment=False,
                          data_encipherment=False, key_agreement=False, encipher_only=False,
                          decipher_only=False), critical=True)
    if server:
        import ipaddress
        builder = builder.add_extension(
            x509.SubjectAlternativeName([x509.IPAddress(ipaddress.ip_address("127.0.0.1"))]),
            critical=False)
    if role is not None:
        builder = builder.add_extension(
            x509.UnrecognizedExtension(ROLE_OID, _der_utf8(role)), critical=False)
    return builder.sign(issuer_key, hashes.SHA256())


def make_certificates(directory):
    """Writes every certificate and key; returns {name: (cert, key)}."""
    files = {}
    ca_key = ec.generate_private_key(ec.SECP256R1())
    ca = _certificate("Test CA", ca_key, "Test CA", ca_key, ca=True)
    files["ca"] = _write(directory, "ca", ca_key, ca)
    other_key = ec.generate_private_key(ec.SECP256R1())
    other = _certificate("Other CA", other_key, "Other CA", other_key, ca=True)
    files["other-ca"] = _write(directory, "other-ca", other_key, other)

    def issue(name, issuer=("Test CA", ca_key), **kwargs):
        key = ec.generate_private_key(ec.SECP256R1())
        files[name] = _write(directory, name, key,
                             _certificate(name, key, issuer[0], issuer[1], **kwargs))

    issue("server", server=True)
    issue("operator", role="operator")
    issue("viewer", role="viewer")
    issue("no-role")
    issue("unknown-role", role="intruder")
    issue("expired", role="operator", not_before=NOW - 60 * DAY, not_after=NOW - 30 * DAY)
    issue("wrong-ca", issuer=("Other CA", other_key), role="operator")
    return files
