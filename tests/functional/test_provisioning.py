"""How the agent gets its certificates from the certificate service, over real HTTPS.

A small program does what the agent does when it starts; it uses the built-in host name of the service.
"""
import http.client
import json
import shutil
import socket
import ssl
import stat
import subprocess
import time

import pytest

from lab.certificates import DAY, Authority
from lab.certservice import HOST, CertificateService, require_private_etc
from lab.commands import run
from lab.daemon import CERTIFICATES, program

PROGRAM = program("Provision")
FILES = ("server.key", "server.pem", "ca.crt")
SECONDS = 60
MISSING_ALL = ("Could not find certificate files: server.key server.pem ca.crt; subsequently failed to "
               "create them with error message: ")


@pytest.fixture(autouse=True)
def no_files():
    require_private_etc()
    shutil.rmtree(CERTIFICATES, ignore_errors=True)


def provision(milliseconds=20000):
    return subprocess.run([PROGRAM, str(milliseconds)], capture_output=True, text=True, check=False,
                          timeout=SECONDS)


def failure(milliseconds=20000):
    """The program's reason for its failure, which it has also logged as its last line."""
    done = provision(milliseconds)
    assert done.returncode == 1
    assert done.stdout == ""
    lines = done.stderr.splitlines()
    assert f"1 {lines[-1]} [failure:certificate-unavailable]" in lines[:-1]
    return lines[-1]


def files():
    return sorted(path.name for path in CERTIFICATES.iterdir()) if CERTIFICATES.exists() else []


def test_first_start(service_authority, service_identity):
    with CertificateService(service_authority, identity=service_identity) as service:
        done = provision()
    assert (done.returncode, done.stderr) == (0, "")
    assert files() == sorted(FILES)
    assert done.stdout == "".join((CERTIFICATES / name).read_text() for name in FILES)
    modes = [stat.S_IMODE((CERTIFICATES / name).stat().st_mode) for name in FILES]
    assert modes == [0o600, 0o644, 0o644]

    key, certificate, ca = (CERTIFICATES / name for name in FILES)
    assert run("openssl", "pkey", "-in", key, "-pubout") == run("openssl", "x509", "-in", certificate,
                                                                "-noout", "-pubkey")
    assert run("openssl", "verify", "-CAfile", ca, certificate) == f"{certificate}: OK"
    assert ca.read_bytes() == service_authority.certificate.read_bytes()
    subject = run("openssl", "x509", "-in", certificate, "-noout", "-subject", "-nameopt", "RFC2253")
    assert subject == (f"subject=CN={socket.gethostname()},OU=Device-Agent CA,O=Tolvu,L=Brellin,ST=Ostavia,"
                       "C=US")
    assert [json.loads(body)["action"] for _, body in service.requests] == ["issueCert", "retrieveCaCert"]


def test_what_is_sent(service_authority, service_identity, tmp_path):
    with CertificateService(service_authority, identity=service_identity) as service:
        assert provision().returncode == 0
    for headers, body in service.requests:
        assert headers["Content-Type"] == "application/json"
        assert headers["Accept"] == "application/json"
        assert headers["charsets"] == "utf-8"
        assert headers["Host"] == HOST
        assert headers["Content-Length"] == str(len(body))
    issue, retrieve = (json.loads(body) for _, body in service.requests)
    assert retrieve == {"caId": "bek", "caVersion": 1, "action": "retrieveCaCert"}
    assert issue.keys() == {"caId", "caVersion", "action", "key", "certificateRequest"}
    assert issue["key"] == "lab-service-key"
    (tmp_path / "request").write_text(issue["certificateRequest"])
    shown = run("certtool", "--crq-info", "--infile", tmp_path / "request")
    assert "Version: 1\n" in shown
    assert "Subject Public Key Algorithm: RSA\n" in shown and "(2048 bits)" in shown
    assert "Self signature: verified" in shown


def test_second_start_asks_nobody(service_authority, service_identity):
    with CertificateService(service_authority, identity=service_identity):
        first = provision()
    second = provision()
    assert (second.returncode, second.stderr) == (0, "")
    assert second.stdout == first.stdout


@pytest.mark.parametrize("lost", FILES)
def test_a_lost_file_has_all_made_anew(service_authority, service_identity, lost):
    with CertificateService(service_authority, identity=service_identity) as service:
        before = provision().stdout
        (CERTIFICATES / lost).unlink()
        after = provision()
        assert len(service.requests) == 4
    assert after.returncode == 0
    assert after.stdout != before
    assert run("openssl", "pkey", "-in", CERTIFICATES / "server.key", "-pubout") == run(
        "openssl", "x509", "-in", CERTIFICATES / "server.pem", "-noout", "-pubkey")


def test_service_down(service_authority):
    text = failure()
    assert text.startswith(MISSING_ALL + f"curl request issueCert to https://{HOST}/certApi.php failed (")
    assert text.endswith(" | ERROR(CURL) : 7 (0x7)")
    assert files() == []


@pytest.mark.parametrize("fault", ["slow", "trickle"])
def test_service_that_never_comes_to_an_end(service_authority, service_identity, fault):
    began = time.monotonic()
    with CertificateService(service_authority, identity=service_identity, fault=fault):
        text = failure(milliseconds=2000)
    assert 2 <= time.monotonic() - began < 20
    assert text.startswith(MISSING_ALL + "curl request issueCert to ")
    assert text.endswith(" | ERROR(CURL) : 28 (0x1c)")
    assert files() == []


def test_service_that_takes_connections_only(service_authority):
    with socket.create_server(("127.0.0.1", 443)):
        text = failure(milliseconds=2000)
    assert text.endswith(" | ERROR(CURL) : 28 (0x1c)")


@pytest.mark.parametrize("fault, reason", [
    ("500", "curl request issueCert response incorrectly formatted"),
    ("500-json", "curl request issueCert status: failed"),
    ("500-success", "curl request issueCert answered with HTTP status 500"),
    ("not-json", "curl request issueCert response incorrectly formatted"),
    ("wrong-keys", "curl request issueCert response keys not found, or not formatted correctly"),
    ("failed", "curl request issueCert status: failed"),
    ("no-authority", "curl request retrieveCaCert status: failed"),
    ("another-key", "curl request issueCert certificate can't be used: it is for another key"),
    ("garbage", "curl request issueCert certificate can't be used: it is no PEM certificate (ASN1 parser: "
                "Error in TAG.)"),
    ("huge", "curl request issueCert response is larger than 1048576 bytes"),
    ("redirect", "curl request issueCert response incorrectly formatted"),
])
def test_useless_answer(service_authority, service_identity, fault, reason):
    with CertificateService(service_authority, identity=service_identity, fault=fault) as service:
        assert failure() == MISSING_ALL + reason
        assert len(service.requests) == (2 if fault == "no-authority" else 1)
    assert files() == []


def test_authority_that_nobody_trusts(service_authority, tmp_path):
    stranger = Authority(tmp_path / "stranger", "Another CA")
    with CertificateService(stranger) as service:
        text = failure()
        assert service.requests == []
    assert text.startswith(MISSING_ALL + "curl request issueCert to ")
    assert text.endswith(" | ERROR(CURL) : 60 (0x3c)")
    assert files() == []


def test_trusted_certificate_of_another_host(service_authority):
    elsewhere = service_authority.issue("elsewhere",
                                        more=("tls_www_server", 'dns_name = "elsewhere.example"'))
    with CertificateService(service_authority, identity=elsewhere) as service:
        text = failure()
        assert service.requests == []
    assert text.endswith(" | ERROR(CURL) : 60 (0x3c)")


def test_expired_service_certificate(service_authority):
    expired = service_authority.issue(HOST, starts=-30 * DAY, ends=-DAY, more=("tls_www_server",
                                                                       f'dns_name = "{HOST}"'))
    with CertificateService(service_authority, identity=expired) as service:
        text = failure()
        assert service.requests == []
    assert text.endswith(" | ERROR(CURL) : 60 (0x3c)")


@pytest.mark.filterwarnings("ignore:ssl.TLSVersion")
def test_old_tls(service_authority, service_identity):
    """The client refuses a server that supports only TLS 1.1 or older."""
    service = CertificateService(service_authority, identity=service_identity)
    service.context.set_ciphers("ALL:@SECLEVEL=0")
    service.context.minimum_version = ssl.TLSVersion.TLSv1
    service.context.maximum_version = ssl.TLSVersion.TLSv1_1
    with service:
        text = failure()
        assert service.requests == []
    assert text.endswith(" | ERROR(CURL) : 35 (0x23)")


def test_proxy_of_the_environment_is_ignored(service_authority, service_identity, monkeypatch):
    monkeypatch.setenv("https_proxy", "http://127.0.0.1:1")
    with CertificateService(service_authority, identity=service_identity):
        assert provision().returncode == 0


def test_directory_that_cannot_be_written(service_authority, service_identity):
    CERTIFICATES.mkdir(parents=True)
    run("mount", "-t", "tmpfs", "-o", "ro", "tmpfs", CERTIFICATES)
    try:
        with CertificateService(service_authority, identity=service_identity):
            done = provision()
        assert done.returncode == 1
        assert done.stderr.splitlines()[-1] == MISSING_ALL + "could not open file server.key for writing"
        assert "Read-only file system" in done.stderr
        assert files() == []
    finally:
        run("umount", CERTIFICATES)


def test_full_disk_leaves_no_half_written_file(service_authority, service_identity):
    CERTIFICATES.mkdir(parents=True)
    run("mount", "-t", "tmpfs", "-o", "size=4k", "tmpfs", CERTIFICATES)  # room only for the key
    try:
        with CertificateService(service_authority, identity=service_identity):
            text = failure()
        assert text == MISSING_ALL + "could not open file server.pem for writing"
        assert files() == ["server.key"]
    finally:
        run("umount", CERTIFICATES)
    with CertificateService(service_authority, identity=service_identity):
        assert provision().returncode == 0
    assert files() == sorted(FILES)


def test_service_of_the_lab_refuses_strangers(service_authority, service_identity):
    service = CertificateService(service_authority, identity=service_identity)
    request = {"caId": "bek", "caVersion": 1, "action": "issueCert", "certificateRequest": ""}
    for change in ({}, {"key": "guessed"}, {"key": "lab-service-key", "certificateRequest": "none"},
                   {"caId": "other"}, {"action": "revoke", "key": "lab-service-key"}):
        assert service.reply(json.dumps(request | change))["status"] == "failed"
    for text in ("", "[]", "7", "{}"):
        assert service.reply(text)["status"] == "failed"


def test_service_of_the_lab_knows_one_path(service_authority, service_identity):
    with CertificateService(service_authority, identity=service_identity):
        context = ssl.create_default_context(cafile=service_authority.certificate)
        connection = http.client.HTTPSConnection(HOST, context=context, timeout=SECONDS)
        connection.request("PUT", "/other", body="{}")
        assert connection.getresponse().status == 404
        connection.close()
