"""The HTTPS server against real clients with real certificates.

A small program runs the server with a request function that answers with a description of the request. The
program prints the server's log.
"""
import hashlib
import json
import os
import pathlib
import subprocess
import threading

import pytest

from https_peers import NOISE, handshake, send_plain
from https_site import SECONDS, EchoServer, check_echo, check_serves, make_site
from lab import certificates
from lab.appliance_client import DEVICE, PORT
from lab.daemon import CERTIFICATES
from lab.https_client import BASE_URL, Client
from lab.services import wait_until

MARK = " [failure:client-certificate]"


@pytest.fixture(scope="module")
def site(tmp_path_factory):
    return make_site(tmp_path_factory.mktemp("certificates"))


@pytest.fixture
def server(site):
    with EchoServer() as running:
        yield running


@pytest.fixture
def client(site, server):
    return Client(site.authority.certificate, site.device)


def curl(site, *arguments):
    return subprocess.run(
        ["curl", "--silent", "--show-error", "--max-time", str(SECONDS),
         "--cacert", site.authority.certificate, "--cert", site.device.certificate, "--key", site.device.key,
         *arguments], capture_output=True, text=True, check=False, timeout=2 * SECONDS)


def test_request_reaches_the_function(client, server):
    check_serves(client)
    assert "4 a = 1" in server.lines


@pytest.mark.parametrize("method", ["POST", "PUT", "DELETE"])
def test_body_and_no_arguments(client, method):
    check_echo(client.request(method, "/backup/x?a=1&b=2", b"\0{}\xff"), method=method, url="/backup/x",
               args={}, bodyBytes=4, bodyHash=hashlib.sha256(b"\0{}\xff").hexdigest())
    check_echo(client.request(method, "/backup/x?a=1", b""), args={}, body="")
    check_echo(client.request(method, "/backup/x"), args={}, body="")


def test_url_arguments(client):
    for query, args in [("a=1&a=2", {"a": "2"}), ("=x", {}), ("a", {"a": ""}), ("a=", {"a": ""}),
                        ("a=1&=x&b=%20c%26", {"a": "1", "b": " c&"}), ("", {})]:
        check_echo(client.request("GET", f"/event?{query}"), args=args)


def test_real_client(site, server):
    """The client is curl, which sends its body in chunks and waits for "100 Continue"."""
    body = site.directory / "body"
    body.write_bytes(bytes(range(256)) * 400)
    done = curl(site, "--limit-rate", "60k", "--data-binary", f"@{body}", f"{BASE_URL}/pair?a=1")
    echo = json.loads(done.stdout)
    assert (echo["bodyBytes"], echo["args"]) == (102400, {})
    assert echo["bodyHash"] == hashlib.sha256(body.read_bytes()).hexdigest()


def test_no_ipv6(site, server, client):
    done = curl(site, f"https://[::1]:{PORT}/host")
    assert done.returncode == 7 # curl's status for a failed connection, see its manual
    check_serves(client)


def test_body_in_three_chunks(client):
    with client.connect() as connection:
        connection.send(b"POST /pair HTTP/1.1\r\nHost: agent\r\nContent-Length: 9\r\n\r\n")
        for piece in (b"one", b"two", b"six"):
            connection.send(piece)
        check_echo(connection.read_answer(), body="onetwosix")


def test_client_is_checked_for_each_chunk(site, server, client):
    """The trust file is removed while a body is being sent: the rest of the body is refused."""
    refusal = "1 Internal error - failed to import trust file as cert" + MARK
    trust = CERTIFICATES / "ca.crt"
    with client.connect() as connection:
        connection.send(b"POST /pair HTTP/1.1\r\nHost: agent\r\nContent-Length: 9\r\n\r\none")
        trust.rename(trust.with_suffix(".away"))
        try:
            connection.send(b"two")
            server.wait_for(refusal)
            assert connection.read_answer() is None
        finally:
            trust.with_suffix(".away").rename(trust)
    server.wait_for("1 Client certificate validation failed" + MARK)
    check_serves(client)


def test_chunked_encoding(client):
    with client.connect() as connection:
        connection.send(b"POST /pair HTTP/1.1\r\nHost: agent\r\nTransfer-Encoding: chunked\r\n\r\n")
        for piece in (b"3\r\none\r\n", b"3\r\ntwo\r\n", b"0\r\n\r\n"):
            connection.send(piece)
        check_echo(connection.read_answer(), body="onetwo")


def test_no_client_certificate(site, server, client):
    stranger = Client(site.authority.certificate)
    assert stranger.request("GET", "/basichost") is None
    assert stranger.request("POST", "/pair", b"injected") is None
    server.wait_for("1 Exception occurred in processing connection: Failed to verify peer certificate", 2)
    check_serves(client)


def cpu_seconds(server):
    fields = pathlib.Path(f"/proc/{server.process.pid}/stat").read_text(encoding="ascii").rsplit(")", 1)[1]
    return sum(int(ticks) for ticks in fields.split()[11:13]) / os.sysconf("SC_CLK_TCK")


def test_stranger_adds_nothing_to_a_body(site, server, client):
    """Another client in between neither changes a request nor keeps the server busy."""
    stranger = Client(site.authority.certificate)
    with client.connect() as connection:
        connection.send(b"POST /pair HTTP/1.1\r\nHost: agent\r\nContent-Length: 4\r\n\r\n")
        assert stranger.request("POST", "/pair", b"injected") is None
        busy = cpu_seconds(server)
        connection.send(b"true")
        check_echo(connection.read_answer(), body="true")
        assert cpu_seconds(server) - busy < 1
    check_serves(client)


def test_bad_certificates(site, server, client):
    """A refused client gets no answer, so only the log can tell an administrator the reason."""
    mismatch = "1 Certificate issuer mismatch"
    unverified = "1 Verification of device certificate failed: "
    no_type = "1 Failed to find required metadata in client certificate"
    reasons = {
        "self-signed": mismatch,
        "signed by another authority": mismatch,
        "signed by another authority of the same name": unverified + "Cert signer not found",
        "expired": unverified + "Cert expired",
        "not yet valid": unverified + "Cert invalid activation time",
        "without the extension": no_type,
        "another type": no_type,
        "a trailing blank in the type": no_type,
        "extension with another tag": no_type,
        "extension cut short": no_type,
        "extension behind a hundred others": no_type,
    }
    for what, identity in site.authority.bad_devices(DEVICE).items():
        before = len(server.lines)
        assert Client(site.authority.certificate, identity).request("GET", "/basichost") is None, what
        refused = "1 Client certificate validation failed" + MARK
        wait_until(lambda: refused in server.lines[before:], SECONDS, f"refusal of {what}")
        reason = reasons.get(what, "1 Certificate invalid Common Name") + MARK
        assert reason in server.lines[before:], f"{what}: {server.lines[before:]}"
    check_serves(client)


def test_good_certificates(site, server):
    behind = site.authority.device_behind(7, 99)
    check_echo(Client(site.authority.certificate, behind).request("GET", "/host"), deviceId=7)
    for name, number in (("1", 1), ("2147483647", 2147483647), ("4294967296", -1)):
        identity = site.authority.device(name)
        check_echo(Client(site.authority.certificate, identity).request("GET", "/host"), deviceId=number)


def test_rsa_certificates(site, tmp_path):
    authority = certificates.Authority(tmp_path, key_type="rsa")
    certificates.install(authority.agent(), authority, CERTIFICATES)
    try:
        with EchoServer():
            check_serves(Client(authority.certificate, authority.device(DEVICE)))
    finally:
        certificates.install(site.authority.agent(), site.authority, CERTIFICATES)


def test_refused_requests(server, client):
    assert client.request("GET", "/host", b"body") is None
    server.wait_for("2 Invalid GET request. Data exists in body.")
    for number, method in enumerate(("PATCH", "HEAD", "OPTIONS", "get", "X"), 1):
        assert client.request(method, "/host") is None, method
        server.wait_for("2 Invalid method during request", number)
    check_serves(client)


def test_exceptions_close_the_connection(server, client):
    assert client.request("GET", "/throw") is None
    server.wait_for("1 Exception occurred in processing connection: as asked for")
    assert client.request("GET", "/strange") is None
    server.wait_for("1 Unknown error occurred in processing connection")
    check_serves(client)


def test_protocols_and_ciphers(site, server):
    assert handshake(site.device, "NORMAL")
    assert handshake(site.device, "NORMAL:-VERS-ALL:+VERS-TLS1.3")
    assert handshake(site.device, "NORMAL:-VERS-ALL:+VERS-TLS1.2")
    assert not handshake(site.device, "NORMAL:-VERS-ALL:+VERS-TLS1.0")
    for cipher in ("3DES-CBC", "NULL"):
        assert not handshake(site.device, f"NORMAL:-VERS-ALL:+VERS-TLS1.2:-CIPHER-ALL:+{cipher}")


@pytest.mark.parametrize("renegotiates", [False, True])
def test_certificate_cannot_change_on_a_connection(site, server, client, renegotiates):
    """All data of a connection is from one device: a second handshake ends the connection."""
    program = ["openssl", "s_client", "-tls1_2", "-quiet", "-connect", f"127.0.0.1:{PORT}",
               "-CAfile", site.authority.certificate, "-cert", site.device.certificate,
               "-key", site.device.key]
    if renegotiates:
        program.remove("-quiet") # -quiet would make openssl send the command as data
    with subprocess.Popen(program, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT) as peer:
        request = b"GET /host HTTP/1.1\r\nHost: agent\r\nConnection: close\r\n\r\n"
        output, _ = peer.communicate(b"R\n" + request if renegotiates else request, SECONDS)
    assert (b"RENEGOTIATING" in output) == renegotiates
    assert (b"HTTP/1.1 200 OK" in output) != renegotiates
    check_serves(client)


def test_plain_http_and_noise(client):
    for noise in NOISE:
        send_plain(client.address, noise)
    check_serves(client)


def test_stop_waits_for_the_request_function(site):
    """A request that is being handled when the stop begins is completed before the stop ends."""
    with EchoServer() as server:
        client = Client(site.authority.certificate, site.device)
        lingering = threading.Thread(target=client.request, args=("GET", "/linger"))
        lingering.start()
        server.wait_for("3 lingering")
        server.process.stdin.close()
        lingering.join(SECONDS)
        assert server.process.wait(SECONDS) == 0
        lines = server.lines
    assert "3 left behind" not in lines
    assert lines.index("4 HTTP server stopping") < lines.index("3 waited for") < lines.index(
        "3 HTTP server stopped")
