"""The API of the real daemon against clients that it must refuse, and against attackers."""
import contextlib
import json
import os
import random
import socket

import pytest

from https_peers import NOISE, handshake, send_plain, wait_until_idle
from lab.appliance_client import DEVICE, PORT
from lab.certificates import Authority
from lab.daemon import CERTIFICATES
from lab.https_client import Client
from lab.services import wait_until
from lab.usage import usage

SECONDS = 60
MIB = 1 << 20
TRUST = CERTIFICATES / "ca.crt"
MARK = " [failure:client-certificate]"
REFUSED = "[ERROR:]    Client certificate validation failed" + MARK
NO_TYPE = ["[ERROR:]    Failed to find required metadata in client certificate" + MARK, REFUSED]
NO_TRUST = ["[ERROR:]    Internal error - failed to import trust file as cert" + MARK, REFUSED]
POSTS = {"/pair": 400, "/backup": 500, "/logLevel": 400, "/config": 400, "/agentPairTicket": 501,
         "/command": 501, "/updsptcmdmod": 501, "/upgrade": 501}


@pytest.fixture
def unharmed(agent, client):
    """Checks after the test that the daemon serves as before, and uses no more resources than before."""
    before = wait_until_idle(agent.pid, usage(agent.pid)._replace(descriptors=5, threads=2))
    yield before
    check_serves(client)
    assert wait_until_idle(agent.pid, before).rss_kib - before.rss_kib < 32 * 1024


def check_serves(client):
    answer = client.request("GET", "/backup")
    assert answer.status == 200
    assert json.loads(answer.body).keys() == {"active", "failed", "finished"}


def problems(text):
    """The lines of a log at level warning and above, without their time."""
    lines = [line[24:] for line in text.splitlines()]
    return [line for line in lines if line.startswith(("[WARNING:]", "[ERROR:]", "[CRITICAL:]"))]


def check_refused(agent, authority, identity, expected, request=("GET", "/v2/feature")):
    """Checks that there is no answer, and that the log gets exactly these lines, with the last one at the
    end."""
    before = len(agent.log)
    assert Client(authority.certificate, identity).request(*request) is None
    agent.wait_for_log(expected[-1] + "\n")
    wait_until(lambda: problems(agent.log[before:]) == expected, SECONDS,
               f"{expected} instead of {problems(agent.log[before:])}")


# Certificates.

def test_no_certificate(unharmed, agent, client, site_authority):
    for request in (("GET", "/v2/feature"), ("POST", "/pair", b'{"deviceID": 1}')):
        expected = "Exception occurred in processing connection: Failed to verify peer certificate"
        check_refused(agent, site_authority, None, [f"[ERROR:]    {expected}"], request)
        check_serves(client)


def expected_of(what):
    """The log lines about one of Authority.bad_devices."""
    unverified = "[ERROR:]    Verification of device certificate failed: "
    reasons = {"self-signed": "mismatch", "signed by another authority": "mismatch",
               "signed by another authority of the same name": "Cert signer not found",
               "expired": "Cert expired", "not yet valid": "Cert invalid activation time"}
    reason = reasons.get(what)
    if reason == "mismatch":
        return ["[ERROR:]    Certificate issuer mismatch" + MARK, REFUSED]
    if reason is not None:
        return [unverified + reason + MARK, "[ERROR:]    Failed to verify client certificate" + MARK,
                REFUSED]
    if what.startswith("Common Name"):
        return ["[ERROR:]    Certificate invalid Common Name" + MARK, REFUSED]
    return NO_TYPE


def test_bad_certificates(unharmed, agent, client, site_authority):
    """Each certificate is refused for its own reason, and the next valid request is answered."""
    for what, identity in site_authority.bad_devices(DEVICE).items():
        check_refused(agent, site_authority, identity, expected_of(what))
        check_serves(client)
    for line in ("Certificate issuer mismatch (ours='Device-Agent CA'; theirs='Another CA'",
                 "Bad client certificate Common Name",
                 "Client Common Name '007' does not match expected deviceID format",
                 "Client Common Name '12a' does not match expected deviceID format",
                 "Client Common Name '0' does not match expected deviceID format"):
        assert f"[DEBUG:]    {line}\n" in agent.output


def test_smallest_and_largest_device(unharmed, client, site_authority):
    """The smallest and the largest device ID can pair, with a hundred extensions in the certificate."""
    for identity, number in ((site_authority.device(1), 1), (site_authority.device(2**31 - 1), 2**31 - 1),
                             (site_authority.device_behind(99, 99), 99)):
        device = Client(site_authority.certificate, identity)
        assert device.request("POST", "/pair", b'{"deviceID": %d}' % number).status == 200
        assert device.request("GET", "/backup").status == 200
        assert client.request("GET", "/backup").status == 401
    assert client.request("POST", "/pair", b'{"deviceID": %d}' % DEVICE).status == 200


def test_device_number_beyond_the_range(unharmed, agent, site_authority, database):
    """The certificate is valid, so the device gets answers; but its number is no valid ID, and it can't
    pair."""
    huge = Client(site_authority.certificate, site_authority.device(2**32))
    assert huge.request("GET", "/v2/feature").status == 200
    assert huge.request("GET", "/backup").status == 401
    assert "Unauthorized request from device -1 for backupList [failure:not-paired]\n" in agent.log
    for number, reason in ((-1, "-1 rejected (invalid device ID)"), (2**32, "0 rejected (invalid JSON)"),
                           (0, "0 rejected (invalid device ID)"), (1, "1 rejected (device ID mismatch)")):
        assert huge.request("POST", "/pair", b'{"deviceID": %d}' % number).status == 400
        assert f"Pair request from deviceID {reason} [failure:pairing-refused]\n" in agent.log
    assert database("select id from device") == [(DEVICE,)]


def test_trust_file(unharmed, agent, client, site_authority, site_device):
    """The trust file is read again for each client. If it isn't a certificate of at most 20,000 bytes, all
    clients are refused."""
    good = TRUST.read_bytes()
    for content in (None, b"", b"-----BEGIN CERTIFICATE-----\nbm9uZQ==\n-----END CERTIFICATE-----\n",
                    os.urandom(5000), good.ljust(20_001, b"\n")):
        if content is None:
            TRUST.unlink()
        else:
            TRUST.write_bytes(content)
        check_refused(agent, site_authority, site_device(DEVICE), NO_TRUST)
        TRUST.write_bytes(good)
        check_serves(client)
    TRUST.write_bytes(good.ljust(20_000, b"\n"))
    check_serves(client)


def test_other_authority_in_the_trust_file(unharmed, agent, client, site_authority, site_device, tmp_path):
    good = TRUST.read_bytes()
    TRUST.write_bytes(Authority(tmp_path).certificate.read_bytes())
    check_refused(agent, site_authority, site_device(DEVICE), expected_of(
        "signed by another authority of the same name"))
    TRUST.write_bytes(good)


# Requests.

def test_protocols_and_ciphers(unharmed, client, site_device):
    identity = site_device(DEVICE)
    for version in ("1.2", "1.3"):
        assert handshake(identity, f"NORMAL:-VERS-ALL:+VERS-TLS{version}")
    assert not handshake(identity, "NORMAL:-VERS-ALL:+VERS-TLS1.0")
    for cipher in ("3DES-CBC", "NULL"):
        assert not handshake(identity, f"NORMAL:-VERS-ALL:+VERS-TLS1.2:-CIPHER-ALL:+{cipher}")


def test_ipv6(unharmed, client):
    with pytest.raises(ConnectionRefusedError):
        socket.create_connection(("::1", PORT), SECONDS)


def test_requests_without_an_answer(unharmed, agent, client):
    """GET with a body, and methods that the API doesn't have."""
    assert client.request("GET", "/v2/feature", b'["zephane"]') is None
    agent.wait_for_log("[WARNING:]  Invalid GET request. Data exists in body.\n")
    check_serves(client)
    assert client.request("PATCH", "/config", b"{}") is None
    agent.wait_for_log("[WARNING:]  Invalid method during request\n")
    check_serves(client)


def test_plain_noise(unharmed, client):
    for noise in NOISE:
        send_plain(client.address, noise)
        check_serves(client)


@pytest.mark.parametrize("url", ["/" + "x" * (10 * MIB), "/event?from=" + "x" * (10 * MIB),
                                 "/event?" + "a=b&" * MIB], ids=["path", "argument", "arguments"])
def test_endless_url(unharmed, client, url):
    answer = client.request("GET", url)
    assert answer is None or 400 <= answer.status < 500


# Bodies.

def answers_of(client, body):
    """The status of the answer to a POST with this body, by URL."""
    answers = {url: client.request("POST", url, body) for url in POSTS}
    assert all(answer.content_type == "text/plain" for answer in answers.values())
    return {url: answer.status for url, answer in answers.items()}


@pytest.mark.parametrize("body", [
    b'{"deviceID": "\xff\xfe"}', b"[" * 10_000 + b"]" * 10_000, b'{"a":' * 10_000 + b"1" + b"}" * 10_000,
    b"[" * 10_000, bytes(range(256)), b'"' + b"\\" * 9999,
], ids=["not UTF-8", "deep array", "deep object", "no end", "every byte", "backslashes"])
def test_unreadable_bodies(driver, unharmed, agent, client, body):
    """Each call refuses an unreadable body in its own way, at every log level."""
    assert answers_of(client, body) == POSTS
    assert client.request("POST", "/logLevel", b'{"severity": 0}').status == 200
    assert answers_of(client, body) == POSTS
    logs = client.request("GET", "/event?severity=1&lines=10000")
    assert logs.status == 200
    assert json.loads(logs.body)["error"] == []


def test_large_body(unharmed, agent, client):
    """The body is several MiB of JSON, with more values than any request needs."""
    body = b"[" + b"1," * (2 * MIB) + b"1]"
    assert client.request("POST", "/config", body).status == 400
    assert client.request("POST", "/backup", body).status == 500


def test_body_cut_off(unharmed, agent, client):
    """No part of a truncated body gets into the next request."""
    for _ in range(20):
        with contextlib.ExitStack() as together:
            for connection in [together.enter_context(client.connect()) for _ in range(5)]:
                connection.send(
                    b"POST /logLevel HTTP/1.1\r\nHost: agent\r\nContent-Length: 100\r\n\r\n{\"sev")
    wait_until_idle(agent.pid, unharmed)
    assert client.request("POST", "/logLevel", b'{"severity": 2}').status == 200


def test_idle_connections(unharmed, agent, client):
    """There are five hundred idle connections while the paired device polls."""
    with contextlib.ExitStack() as stack:
        for _ in range(500):
            stack.enter_context(client.connect())
        for _ in range(20):
            assert client.request("GET", "/backup/abc").status == 400
        wait_until(lambda: usage(agent.pid).threads <= unharmed.threads + 256, SECONDS, "end of the oldest")
    wait_until_idle(agent.pid, unharmed)


# Many requests.

def mixed_requests(count):
    """Valid and invalid requests of each kind, each with its expected status; None for no answer."""
    kinds = [("GET", "/backup", None, 200), ("GET", "/backup/abc", None, 400), ("GET", "/config", None, 200),
             ("GET", "/v2/driver/status", None, 200), ("GET", "/v2/feature", None, 200),
             ("GET", "/host/", None, 400),
             ("POST", "/pair", b'{"deviceID": 4711}', 200), ("POST", "/pair", b'{"deviceID": 1}', 400),
             ("POST", "/config", b'{"holepunch.enabled": true}', 200), ("POST", "/config", b"{" * 999, 400),
             ("POST", "/logLevel", b'{"severity": 4}', 200), ("POST", "/backup", b'{"volumes": []}', 500),
             ("DELETE", "/backup/abc", None, 200), ("GET", "/event?lines=10", None, 200),
             ("POST", "/command", b"x" * 20_000, 501), ("PATCH", "/config", None, None)]
    choice = random.Random(count)
    return [choice.choice(kinds) for _ in range(count)]


def test_nothing_leaks(driver, unharmed, agent, client):
    """Neither descriptors nor threads nor memory leak, with new and with kept connections. Each request gets
    the expected status."""
    def fresh(count):
        for method, url, body, status in mixed_requests(count):
            answer = client.request(method, url, body)
            assert (answer and answer.status) == status, (method, url)

    def kept(count):
        with client.connect() as connection:
            for method, url, body, status in mixed_requests(count):
                if status is not None:
                    assert connection.request(method, url, body).status == status, (method, url)

    fresh(100)
    kept(200)
    warm = wait_until_idle(agent.pid, unharmed)
    fresh(700)
    kept(2000)
    used = wait_until_idle(agent.pid, unharmed)
    assert used.rss_kib - warm.rss_kib < 16 * 1024
