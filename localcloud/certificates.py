"""The CA of the local cloud and the server certificates it signs.

    <state>/ca/ca.pem            the CA, for CURL_CA_BUNDLE
    <state>/ca/<hash>.0          the same under its hashed name, for a CA directory
    <state>/keys/<kind>.pem      key and certificate of the server, for each kind
    <state>/keys/ca.key

They are made once and found again at the next start, so that a client set up for
a state directory stays so.
"""

import datetime
import hashlib
import ipaddress
import os
import ssl

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.x509.oid import ExtendedKeyUsageOID, NameOID

from actions import CERTIFICATES

# One blank between the words and small letters only: the form that is hashed.
CA_NAME = "kivapp local cloud ca"
OTHER_CA_NAME = "kivapp local cloud untrusted ca"

# Wide, because the clock of a set may be far off before it has asked for the time.
VALID_FROM = datetime.datetime(2000, 1, 1)
VALID_UNTIL = datetime.datetime(2049, 12, 31)
LONG_AGO = datetime.datetime(2001, 1, 1)
FAR_AHEAD = datetime.datetime(2045, 1, 1)

KINDS = ("good",) + CERTIFICATES


class Certificates:
    def __init__(self, state, hosts=()):
        """`hosts`: names by which the services are called beside localhost. Other names than
        before make a new CA."""
        self.directory = os.path.join(state, "ca")
        self.ca_file = os.path.join(self.directory, "ca.pem")
        self._keys = os.path.join(state, "keys")
        self._names = ["localhost", "127.0.0.1"] + sorted(set(hosts) - {"localhost", "127.0.0.1"})
        if not all(os.path.exists(path) for path in self._all_files()) or not self._has_names():
            self._make()
        self._contexts = {kind: self._context(kind) for kind in KINDS}

    def context(self, kind="good"):
        """The server side TLS context that shows this kind of certificate."""
        return self._contexts[kind]

    def _pem(self, kind):
        return os.path.join(self._keys, kind + ".pem")

    def _all_files(self):
        return [self.ca_file] + [self._pem(kind) for kind in KINDS]

    def _has_names(self):
        with open(self._pem("good"), "rb") as file:
            certificate = x509.load_pem_x509_certificate(file.read().split(b"KEY-----\n")[-1])
        names = certificate.extensions.get_extension_for_class(x509.SubjectAlternativeName).value
        return {str(name.value) for name in names} == set(self._names)

    def _context(self, kind):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(self._pem(kind))
        return context

    def _make(self):
        os.makedirs(self.directory, exist_ok=True)
        os.makedirs(self._keys, mode=0o700, exist_ok=True)
        ca = _Authority(CA_NAME)
        other = _Authority(OTHER_CA_NAME)
        self._write(os.path.join(self._keys, "ca.key"), _key_pem(ca.key))
        self._write(self._pem("good"), ca.server_pem(self._names))
        self._write(self._pem("untrusted"), other.server_pem(self._names))
        self._write(self._pem("expired"), ca.server_pem(self._names, until=LONG_AGO))
        self._write(self._pem("other-host"), ca.server_pem(["other.example"]))
        self._write(self._pem("too-new"), ca.server_pem(self._names, since=FAR_AHEAD))
        self._write(self._pem("forged"), ca.server_pem(self._names, signed_by=other.key))
        certificate = ca.certificate.public_bytes(serialization.Encoding.PEM)
        self._write(self.ca_file, certificate, 0o644)
        hashed = os.path.join(self.directory, name_hash(ca.certificate.subject) + ".0")
        if not os.path.lexists(hashed):
            os.symlink("ca.pem", hashed)

    @staticmethod
    def _write(path, content, mode=0o600):
        with open(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, mode), "wb") as file:
            file.write(content)


class _Authority:
    """A CA: its key, its certificate, and what it signs."""

    def __init__(self, name):
        self.key = ec.generate_private_key(ec.SECP256R1())
        self.name = _common_name(name)
        usage = x509.KeyUsage(
            digital_signature=False, content_commitment=False, key_encipherment=False,
            data_encipherment=False, key_agreement=False, key_cert_sign=True, crl_sign=True,
            encipher_only=False, decipher_only=False,
        )
        self.certificate = (
            _builder(self.name, self.name, self.key.public_key(), VALID_FROM, VALID_UNTIL)
            .add_extension(x509.BasicConstraints(ca=True, path_length=0), critical=True)
            .add_extension(usage, critical=True)
            .sign(self.key, hashes.SHA256())
        )

    def server_pem(self, names, since=VALID_FROM, until=VALID_UNTIL, signed_by=None):
        key = ec.generate_private_key(ec.SECP256R1())
        authority = x509.AuthorityKeyIdentifier.from_issuer_public_key(self.key.public_key())
        certificate = (
            _builder(_common_name(names[0]), self.name, key.public_key(), since, until)
            .add_extension(x509.BasicConstraints(ca=False, path_length=None), critical=True)
            .add_extension(x509.ExtendedKeyUsage([ExtendedKeyUsageOID.SERVER_AUTH]), critical=False)
            .add_extension(
                x509.SubjectAlternativeName([_alternative_name(name) for name in names]),
                critical=False,
            )
            .add_extension(authority, critical=False)
            .sign(signed_by or self.key, hashes.SHA256())
        )
        return _key_pem(key) + certificate.public_bytes(serialization.Encoding.PEM)


def _builder(subject, issuer, public_key, since, until):
    identifier = x509.SubjectKeyIdentifier.from_public_key(public_key)
    return (
        x509.CertificateBuilder()
        .subject_name(subject)
        .issuer_name(issuer)
        .public_key(public_key)
        .serial_number(x509.random_serial_number())
        .not_valid_before(since)
        .not_valid_after(until)
        .add_extension(identifier, critical=False)
    )


def _common_name(name):
    return x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, name)])


def _alternative_name(name):
    try:
        return x509.IPAddress(ipaddress.ip_address(name))
    except ValueError:
        return x509.DNSName(name)


def _key_pem(key):
    return key.private_bytes(
        serialization.Encoding.PEM,
        serialization.PrivateFormat.PKCS8,
        serialization.NoEncryption(),
    )


def name_hash(name):
    """OpenSSL's hash of a name already in canonical form (its order is SHA-1, little endian)."""
    der = name.public_bytes()
    outer_header = 2  # tag and one length byte: our names are short
    digest = hashlib.sha1(der[outer_header:]).digest()
    return "%08x" % int.from_bytes(digest[:4], "little")
