"""The HTTPS server against real clients with real certificates.

A small program runs the server with a request function that answers with a description of the request. The
program prints the server's log.
"""
import collections
import contextlib
import hashlib
import json
import os
import pathlib
import struct
import socket
import subprocess
import tempfile
import threading

import pytest

from https_peers import NOISE, handshake, send_plain, wait_until_idle
from lab import certificates
from lab.appliance_client import DEVICE, PORT
from lab.daemon import CERTIFICATES, program
from lab.https_client import BASE_URL, Client
from lab.services import wait_until
from lab.usage import usage

PROGRAM = program("HttpsEcho")
SECONDS = 60
MIB = 1 << 20
MARK = " [failure:client-certificate]"


class EchoServer:
    """The program; its output is kept."""

    def __enter__(self):
        self._log = tempfile.TemporaryFile()
        self.process = subprocess.Popen(
            [PROGRAM, *(CERTIFICATES / name for name in ("server.key", "server.pem", "ca.crt"))],
            stdin=subprocess.PIPE, stdout=self._log, stderr=subprocess.STDOUT, text=True)
        self.wait_for("3 HTTP server started")
        return self

    @property
    def lines(self):
        return os.pread(self._log.fileno(), 64 * MIB, 0).decode(errors="replace").splitlines()

    def wait_for(self, line, times=1):
        wait_until(lambda: self.lines.count(line) >= times, SECONDS, f"{line!r} in {self.lines[-20:]}")

    def release(self):
        """Lets one request to /wait go."""
        self.process.stdin.write("\n")
        self.process.stdin.flush()

    def usage(self):
        return usage(self.process.pid)

    def wait_until_idle(self, idle):
        return wait_until_idle(self.process.pid, idle)

    def __exit__(self, *exception):
        self.process.stdin.close()
        try:
            status = self.process.wait(SECONDS)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise
        if exception[0] is None:
            assert status == 0, self.lines[-50:]
            assert self.lines[-1] == "4 HTTP server destroyed"
        self._log.close()


Site = collections.namedtuple("Site", "authority device directory")


@pytest.fixture(scope="module")
def site(tmp_path_factory):
    """The agent's certificates in their usual place, and an appliance."""
    directory = tmp_path_factory.mktemp("certificates")
    authority = certificates.Authority(directory, own_key_type="rsa")
    certificates.install(authority.agent(), authority, CERTIFICATES)
    return Site(authority, authority.device(DEVICE), directory)


@pytest.fixture
def server(site):
    with EchoServer() as running:
        yield running


@pytest.fixture
def client(site, server):
    return Client(site.authority.certificate, site.device)


def check_echo(answer, **expected):
    """Checks that the answer echoes a request with these properties; returns the echo."""
    assert answer is not None
    assert (answer.status, answer.content_type) == (200, "application/json")
    echo = json.loads(answer.body)
    assert {name: echo[name] for name in expected} == expected
    return echo


def check_serves(client):
    """Checks that the server still works."""
    check_echo(client.request("GET", "/host?a=1"), deviceId=DEVICE, ip="127.0.0.1", method="GET", url="/host",
               args={"a": "1"}, body="")
    check_echo(client.request("POST", "/pair", b"whole"), body="whole")


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
    """curl, which sends its body in chunks and waits for "100 Continue"."""
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


ENDLESS_HEADS = {
    "path": ("/" + "x" * (10 * MIB), ()),
    "argument": ("/?a=" + "x" * (10 * MIB), ()),
    "arguments": ("/?" + "a=b&" * MIB, ()),
    "header": ("/host", ("X-Long: " + "x" * (10 * MIB),)),
    "headers": ("/host", ("X: y",) * 100_000),
}


@pytest.mark.parametrize("what", ENDLESS_HEADS)
def test_endless_head(server, client, what):
    url, headers = ENDLESS_HEADS[what]
    before = server.usage().rss_kib
    with client.connect() as connection:
        with contextlib.suppress(OSError):
            connection.send_request("GET", url, headers=headers)
        answer = connection.read_answer()
    assert answer is None or 400 <= answer.status < 500
    assert server.usage().rss_kib - before < 8 * 1024
    check_serves(client)


@pytest.mark.parametrize("mebibytes, pieces", [(64, 3), (16, 1000)])
def test_large_body(client, mebibytes, pieces):
    body = os.urandom(MIB) * mebibytes
    step = -(-len(body) // pieces)
    with client.connect() as connection:
        connection.socket.settimeout(10 * SECONDS)
        connection.send(f"POST /pair HTTP/1.1\r\nHost: agent\r\nContent-Length: {len(body)}\r\n\r\n".encode())
        for start in range(0, len(body), step):
            connection.send(body[start:start + step])
        check_echo(connection.read_answer(), bodyBytes=len(body), bodyHash=hashlib.sha256(body).hexdigest())


def test_body_above_the_limit(server, client):
    with client.connect() as connection:
        connection.socket.settimeout(10 * SECONDS)
        connection.send(b"POST /pair HTTP/1.1\r\nHost: agent\r\nTransfer-Encoding: chunked\r\n\r\n")
        with contextlib.suppress(OSError):
            for _ in range(129):
                connection.send(b"100000\r\n" + bytes(MIB) + b"\r\n")
        assert connection.read_answer() is None
    server.wait_for(f"2 Request body is longer than {128 * MIB} bytes")
    assert server.usage().rss_kib < 256 * 1024
    check_serves(client)


def test_body_cut_off(server, client):
    idle = server.usage()
    for _ in range(5):
        with client.connect() as connection:
            connection.send(b"POST /pair HTTP/1.1\r\nHost: agent\r\nContent-Length: 100\r\n\r\n{\"half\":")
    server.wait_until_idle(idle)
    check_serves(client)


def test_client_gone_while_answered(server, client):
    """Neither a closed nor a reset connection ends the agent by a signal."""
    idle = server.usage()
    for linger in (None, struct.pack("ii", 1, 0)):
        for _ in range(10):
            with client.connect() as connection:
                connection.send_request("GET", "/big")
                assert connection.socket.recv(1)
                if linger:
                    connection.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, linger)
    server.wait_until_idle(idle)
    check_serves(client)


def test_answer_that_is_slow_to_be_read(server, client):
    """While a client reads an answer slowly, the next request gets no data of that one, and isn't disturbed
    when that answer completes."""
    idle = server.usage()
    with client.connect() as following:
        with client.connect() as slow:
            slow.send_request("POST", "/big", b"left over")
            assert slow.socket.recv(1)
            check_echo(client.request("DELETE", "/x"), body="")
            server.wait_until_idle(idle._replace(descriptors=idle.descriptors + 2, threads=idle.threads + 2))
            following.send(b"POST /pair HTTP/1.1\r\nHost: agent\r\nContent-Length: 6\r\n\r\none")
        server.wait_until_idle(idle._replace(descriptors=idle.descriptors + 1, threads=idle.threads + 1))
        following.send(b"two")
        check_echo(following.read_answer(), body="onetwo")
    server.wait_until_idle(idle)
    check_serves(client)


def test_idle_connections(server, client):
    """However many idle connections there are, they take no more than the share for connections without a
    request."""
    idle = server.usage()
    with contextlib.ExitStack() as stack:
        for _ in range(500):
            stack.enter_context(client.connect())
        for _ in range(20):
            check_serves(client)
        wait_until(lambda: server.usage().threads <= idle.threads + 256, SECONDS, "end of the oldest")
    server.wait_until_idle(idle)


def test_connections_that_have_been_used_stay(server, client):
    """Connections on which there was a request belong to the appliance, and aren't closed to make room."""
    with contextlib.ExitStack() as stack:
        connections = [stack.enter_context(client.connect()) for _ in range(20)]
        for connection in connections:
            check_echo(connection.request("GET", "/host"), url="/host")
        for _ in range(300):
            stack.enter_context(client.connect())
        for connection in connections:
            check_echo(connection.request("POST", "/pair", b"still there"), body="still there")


def test_blocked_request_function_holds_nobody_up(server, client):
    answers = []
    waiting = threading.Thread(target=lambda: answers.append(client.request("GET", "/wait")))
    waiting.start()
    try:
        server.wait_for("3 waiting")
        for _ in range(10):
            check_serves(client)
    finally:
        server.release()
        waiting.join(SECONDS)
    check_echo(answers[0], url="/wait")


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


def test_one_byte_a_second(client):
    """A head that arrives byte by byte, while another client polls."""
    head = b"GET /slow HTTP/1.1\r\nHost: agent\r\n\r\n"
    pace = threading.Event()
    with client.connect() as connection:
        for index in range(3):
            connection.send(head[index:index + 1])
            check_serves(client)
            pace.wait(1)
        connection.send(head[3:])
        check_echo(connection.read_answer(), url="/slow")


def test_overlapping_requests_have_bodies_of_their_own(server, client):
    wrong = []

    def send_many(number):
        for index in range(40):
            body = None if index % 3 == 0 else bytes([65 + number]) * (20_000 * (index % 5))
            answer = client.request("GET" if body is None else "POST", f"/x?a={number}", body)
            echo = json.loads(answer.body) if answer else {}
            expected = hashlib.sha256(body or b"").hexdigest(), {"a": str(number)} if body is None else {}
            if (echo.get("bodyHash"), echo.get("args")) != expected:
                wrong.append((number, index, echo))

    idle = server.usage()
    threads = [threading.Thread(target=send_many, args=(number,)) for number in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(5 * SECONDS)
    assert wrong == []
    server.wait_until_idle(idle)
    check_serves(client)


def test_nothing_leaks(server, client):
    def fresh(count):
        for _ in range(count):
            assert client.request("GET", "/backup/x").status == 200

    def kept(count):
        with client.connect() as connection:
            for index in range(count):
                body = b"{}" * (index % 100) if index % 2 else None
                assert connection.request("POST" if body else "GET", "/event?a=b", body).status == 200

    idle = server.usage()
    fresh(200)
    kept(200)
    warm = server.wait_until_idle(idle)
    fresh(1000)
    kept(9000)
    used = server.wait_until_idle(idle)
    print(f"idle {idle}, warm {warm}, after 10,000 requests {used}")
    slack_kib = 16 * 1024 if "asan" not in str(PROGRAM) else 512 * 1024 # ASan keeps back freed memory
    assert used.rss_kib - warm.rss_kib < slack_kib
