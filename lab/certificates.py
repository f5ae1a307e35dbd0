"""Certificates for the tests and the lab, made with GnuTLS's certtool, and one of them with openssl.

    authority = Authority(directory)             # a directory that the caller owns and removes
    agent = authority.agent()
    appliance = authority.device(4711)
    install(agent, authority, "/etc/tolvu/bek/certs")

An identity is a pair of files, `key` and `certificate`, both PEM. `Authority.bad_devices` makes the ones that
the agent refuses. CertificateError carries the error text of the tool.
"""
import dataclasses
import datetime
import itertools
import pathlib
import subprocess

from lab import commands

AUTHORITY_NAME = "Device-Agent CA"
DEVICE_TYPE_OID = "2.16.840.1.113730.1.13"
FILLER_OID = "1.3.6.1.4.1.99999"
DAY = datetime.timedelta(days=1)
SECONDS = 60


def ia5_string(text):
    """The DER encoding of a short IA5String."""
    return bytes([0x16, len(text)]) + text.encode("ascii")


DEVICE_TYPE = ia5_string("type:device")


@dataclasses.dataclass(frozen=True)
class Identity:
    """A private key and a certificate for it."""

    key: pathlib.Path
    certificate: pathlib.Path

    @property
    def key_pem(self):
        return self.key.read_text(encoding="ascii")

    @property
    def certificate_pem(self):
        return self.certificate.read_text(encoding="ascii")


class CertificateError(Exception):
    """A key or a certificate could not be made."""


def run(*command):
    try:
        commands.run(*command, stdin=subprocess.DEVNULL)
    except OSError as error:
        raise CertificateError(str(error)) from error


def make_key(path, key_type="ecdsa"):
    """Makes a private key: "ecdsa" (256 bits, quick) or "rsa" (2048 bits)."""
    size = ("--curve=secp256r1",) if key_type == "ecdsa" else ("--bits=2048",)
    run("certtool", "--generate-privkey", f"--key-type={key_type}", *size, "--no-text", "--outfile", path)


def time_lines(starts, ends):
    now = datetime.datetime.now(datetime.timezone.utc)
    form = "%Y-%m-%d %H:%M:%S UTC"
    return [f'activation_date = "{now + starts:{form}}"', f'expiration_date = "{now + ends:{form}}"']


def subject_line(name):
    """The subject of a certtool template. certtool takes no empty Common Name, so such a subject has an
    organization only."""
    return f'cn = "{name}"' if name else 'organization = "Nameless"'


def extension_line(oid, content):
    return f'add_extension = "{oid} 0x{content.hex()}"'


class Authority:
    """A certificate authority with a self-signed certificate, and a directory for the files that it makes.

    `own_key_type` is the type of the authority's own key, if it differs from `key_type`, the type of the keys
    that it makes. Signatures of an "rsa" key are the quickest to check."""

    def __init__(self, directory, name=AUTHORITY_NAME, key_type="ecdsa", own_key_type=None,
                 starts=-DAY, ends=3650 * DAY):
        self.directory = pathlib.Path(directory)
        self.directory.mkdir(parents=True, exist_ok=True)
        self.name = name
        self.key_type = own_key_type or key_type
        self._numbers = itertools.count(1)
        self.identity = self.self_signed(name, starts=starts, ends=ends,
                                         more=("ca", "cert_signing_key", "crl_signing_key"))
        self.key_type = key_type

    @property
    def certificate(self):
        """The file that the agent knows as "ca.crt"."""
        return self.identity.certificate

    # Identities that the agent accepts.

    def agent(self, name="agent", **validity):
        """The agent's own identity: a server certificate, valid for 127.0.0.1, ::1 and localhost."""
        return self.issue(name, **validity,
                          more=("tls_www_server", "tls_www_client", "signing_key", "encryption_key",
                                'dns_name = "localhost"', 'ip_address = "127.0.0.1"', 'ip_address = "::1"'))

    def device(self, name, extension=DEVICE_TYPE, **validity):
        """An appliance: its ID is the Common Name, and an extension holds the device type (None: no
        extension)."""
        extensions = () if extension is None else (extension_line(DEVICE_TYPE_OID, extension),)
        return self.issue(str(name), **validity, more=("tls_www_client", "signing_key", *extensions))

    def device_behind(self, name, others):
        """An appliance whose extension comes after `others` other extensions. openssl makes it, as certtool
        stops at 64."""
        base = self._next_path()
        make_key(base.with_suffix(".key"), self.key_type)
        lines = [f"{FILLER_OID}.{number}=DER:0500" for number in range(1, others + 1)]
        lines.append(f"{DEVICE_TYPE_OID}=DER:{DEVICE_TYPE.hex()}")
        base.with_suffix(".ext").write_text("\n".join(lines) + "\n", encoding="ascii")
        run("openssl", "req", "-new", "-key", base.with_suffix(".key"), "-subj", f"/CN={name}",
            "-out", base.with_suffix(".csr"))
        run("openssl", "x509", "-req", "-in", base.with_suffix(".csr"), "-CA", self.certificate,
            "-CAkey", self.identity.key, "-set_serial", "77", "-days", "30",
            "-extfile", base.with_suffix(".ext"), "-out", base.with_suffix(".pem"))
        return Identity(base.with_suffix(".key"), base.with_suffix(".pem"))

    # Helpers.

    def issue(self, name, *, starts=-DAY, ends=365 * DAY, more=()):
        """Makes a key and a certificate for it, signed by this authority. `more` are lines of a certtool
        template."""
        base = self._prepared([subject_line(name), *time_lines(starts, ends), *more])
        run("certtool", "--generate-certificate", "--load-privkey", base.with_suffix(".key"),
            *self._signer(base))
        return Identity(base.with_suffix(".key"), base.with_suffix(".pem"))

    def self_signed(self, name, *, starts=-DAY, ends=365 * DAY, more=()):
        """Makes a key and a self-signed certificate for it."""
        base = self._prepared([subject_line(name), *time_lines(starts, ends), *more])
        run("certtool", "--generate-self-signed", "--load-privkey", base.with_suffix(".key"),
            "--template", base.with_suffix(".template"), "--no-text", "--outfile", base.with_suffix(".pem"))
        return Identity(base.with_suffix(".key"), base.with_suffix(".pem"))

    def sign_request(self, request, *, starts=-DAY, ends=365 * DAY,
                     more=("tls_www_server", "tls_www_client", "signing_key", "encryption_key")):
        """Signs the subject and the key of a PKCS #10 request (PEM text); returns the certificate, also
        PEM."""
        base = self._next_path()
        base.with_suffix(".csr").write_text(request, encoding="ascii")
        self._write_template(base, [*time_lines(starts, ends), *more])
        run("certtool", "--generate-certificate", "--load-request", base.with_suffix(".csr"),
            *self._signer(base))
        return base.with_suffix(".pem").read_text(encoding="ascii")

    def bad_devices(self, name=4711):
        """Identities that the agent refuses, by the reason for it."""
        namesake = Authority(self.directory / f"namesake{next(self._numbers)}", self.name, self.key_type)
        stranger = Authority(self.directory / f"stranger{next(self._numbers)}", "Another CA", self.key_type)
        type_line = extension_line(DEVICE_TYPE_OID, DEVICE_TYPE)
        return {
            "self-signed": self.self_signed(str(name), more=("tls_www_client", type_line)),
            "signed by another authority of the same name": namesake.device(name),
            "signed by another authority": stranger.device(name),
            "expired": self.device(name, starts=-30 * DAY, ends=-DAY),
            "not yet valid": self.device(name, starts=DAY, ends=30 * DAY),
            "without the extension": self.device(name, extension=None),
            "another type": self.device(name, extension=ia5_string("type:server")),
            "a trailing blank in the type": self.device(name, extension=ia5_string("type:device ")),
            "extension with another tag": self.device(name, extension=b"\x0c" + DEVICE_TYPE[1:]),
            "extension cut short": self.device(name, extension=DEVICE_TYPE[:-1]),
            "extension behind a hundred others": self.device_behind(name, 100),
            **{f'Common Name "{bad}"': self.device(bad) for bad in ("", "0", "007", "12a", "-1", " 1", "1 ")},
        }

    def _signer(self, base):
        return ("--load-ca-privkey", self.identity.key, "--load-ca-certificate", self.certificate,
                "--template", base.with_suffix(".template"), "--no-text",
                "--outfile", base.with_suffix(".pem"))

    def _prepared(self, lines):
        base = self._next_path()
        make_key(base.with_suffix(".key"), self.key_type)
        self._write_template(base, lines)
        return base

    def _next_path(self):
        return self.directory / f"certificate{next(self._numbers)}"

    @staticmethod
    def _write_template(base, lines):
        base.with_suffix(".template").write_text("\n".join(lines) + "\n", encoding="utf-8")


def install(agent, authority, directory):
    """Puts the agent's three files where the agent expects them."""
    directory = pathlib.Path(directory)
    directory.mkdir(parents=True, exist_ok=True)
    (directory / "server.key").touch(mode=0o600)
    (directory / "server.key").write_bytes(agent.key.read_bytes())
    (directory / "server.pem").write_bytes(agent.certificate.read_bytes())
    (directory / "ca.crt").write_bytes(authority.certificate.read_bytes())
