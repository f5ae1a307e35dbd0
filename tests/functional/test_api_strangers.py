"""Separation of clients: others can neither speak for the appliance, nor lock it out, nor exhaust the
machine."""
import contextlib
import json
import re
import resource
import socket
import urllib.parse

import pytest

from lab.appliance_client import DEVICE
from lab.daemon import CONFIG
from lab.https_client import Client
from lab.load_clients import MIB, PeakMemory, descriptor_limits, idle_connections, send_body, stalled_request
from lab.services import wait_until
from lab.usage import descriptors

SECONDS = 60
OTHER = 4712
STRANGERS = 256
LOG_BOUND = 64 * 1024


@pytest.fixture
def other(client, site_authority, site_device):
    """A device with a certificate, which isn't paired."""
    return Client(site_authority.certificate, site_device(OTHER))


@pytest.fixture
def stranger(client, site_authority):
    """A client without a certificate."""
    return Client(site_authority.certificate)


def answers_to(client, count=20):
    """The number of correct answers to `count` POSTs, each with a body of its own."""
    good = 0
    for number in range(count):
        answer = client.request("POST", "/config", b'{"log.lifetimeHours": %d}' % (number + 1))
        stored = json.loads(CONFIG.read_bytes()) if CONFIG.exists() else {}
        good += answer is not None and answer.status == 200 and stored.get("log.lifetimeHours") == number + 1
    return good


def level(database):
    return database("select value from config where key = 'log_level'")


# Bodies and clients aren't mixed up.

def test_body_left_behind_is_nobody_elses(client, other, database):
    """An unpaired device sends a part of a body and stops, so that the agent might take it for the next
    request's."""
    assert client.request("POST", "/logLevel", b'{"severity": 2}').status == 200
    before = level(database)
    for _ in range(5):
        with stalled_request(other, "/logLevel", body=b'{"severity": 0}'):
            assert client.request("POST", "/logLevel", b'{"severity": 2}').status == 200
            assert level(database) == before
        with stalled_request(other, "/config", body=b'{"holepunch.enabled": true}'):
            assert client.request("POST", "/config", b'{"log.lifetimeHours": 72}').status == 200
            assert json.loads(client.request("GET", "/config").body) == {"log.lifetimeHours": 72}


def test_overlapping_requests_of_the_appliance_itself(client):
    """Each request keeps its own body."""
    begin, end = b'{"autoupdate.', b'channel": "beta"}'
    with stalled_request(client, "/config", len(begin + end), begin) as slow:
        assert answers_to(client) == 20
        slow.send(end)
        assert slow.read_answer().status == 200
    assert json.loads(CONFIG.read_bytes())["autoupdate.channel"] == "beta"


@pytest.mark.parametrize("who", ["stranger", "other"])
def test_held_heads_cost_no_answer(request, client, who):
    """A client that has sent only the head of a POST blocks no other client."""
    with contextlib.ExitStack() as stack:
        for _ in range(10):
            stack.enter_context(stalled_request(request.getfixturevalue(who)))
            assert answers_to(client, 5) == 5


# Use of resources.

@pytest.mark.parametrize("url, status", [("/backup", 401), ("/pair", 400), ("/agentPairTicket", 501)])
def test_body_of_an_unpaired_device_is_not_kept(agent, client, other, url, status):
    peak = PeakMemory(agent.pid)
    assert send_body(other, url, 120 * MIB).status == status
    print(f"120 MiB to {url} of an unpaired device: {peak.kib} KiB")
    assert peak.kib < 16 * 1024
    agent.wait_for_log("[WARNING:]  Request body of a device that isn't paired is longer than 16384 bytes")
    assert answers_to(client) == 20


def test_text_that_cannot_be_read_stays_out_of_the_log(agent, client):
    """Neither the log nor the answer repeats the 100 MiB, at any log level."""
    assert client.request("POST", "/logLevel", b'{"severity": 0}').status == 200
    before = len(agent.log)
    for url, status in (("/config", 400), ("/logLevel", 400), ("/backup", 500)):
        answer = client.request("POST", url, b'"' + b"x" * (100 * MIB))
        assert answer.status == status
        assert len(answer.body) < LOG_BOUND
        assert b"syntax error while parsing value - invalid string: missing closing quote" in answer.body
    answer = client.request("POST", "/config", b'{"%s": "%s"}' % (b"k" * MIB, b"v" * MIB))
    assert answer.status == 400
    assert len(answer.body) < LOG_BOUND
    assert len(agent.log) - before < 4 * LOG_BOUND
    assert answers_to(client) == 20


def test_four_thousand_idle_connections(foreground, site_authority, site_device):
    """The agent, started with the usual limit of descriptors, can still open its files, and the appliance
    gets its answers."""
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    daemon = foreground(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (1024, hard)))
    client = Client(site_authority.certificate, site_device(DEVICE))
    assert client.request("POST", "/pair", b'{"deviceID": %d}' % DEVICE).status == 200
    with client.connect() as kept:
        assert kept.request("GET", "/backup").status == 200
        with idle_connections(client.address, 4000):
            assert answers_to(client) == 20
            assert kept.request("GET", "/backup").status == 200
            daemon.wait_for_log('Setting agent configuration option {"log.lifetimeHours" : 20}')
            print(f"descriptors with 4,000 idle connections: {descriptors(daemon.pid)}")
            wait_until(lambda: descriptors(daemon.pid) < STRANGERS + 30, SECONDS, "room for others")
    assert daemon.errors == ""
    assert daemon.stop() == 0


def test_crowd_after_the_handshake(agent, client, stranger, other):
    """The crowd has clients without a certificate, and clients with one that send no request."""
    with contextlib.ExitStack() as stack:
        for number in range(STRANGERS + 44):
            stack.enter_context((stranger if number % 2 else other).connect())
        assert answers_to(client) == 20
        wait_until(lambda: descriptors(agent.pid) < STRANGERS + 30, SECONDS, "room for others")


def is_closed(plain, visitor):
    """Whether the connection is closed. Some releases of the HTTP library close it only when the next client
    comes."""
    plain.settimeout(1)
    for _ in range(SECONDS):
        try:
            while plain.recv(4096): # the library may send a close notification
                pass
            return True
        except ConnectionResetError:
            return True
        except TimeoutError:
            with visitor.connect():
                pass
    return False


def test_idle_strangers_are_closed_early(client, stranger, other):
    """The paired device's connection stays open, though it was idle for longer."""
    with client.connect() as kept:
        assert kept.request("GET", "/backup").status == 200
        with socket.create_connection(client.address, SECONDS) as silent, stranger.connect() as unknown, \
                other.connect() as quiet, stalled_request(stranger) as held:
            assert is_closed(silent, client)
            for connection in (unknown, quiet, held):
                connection.socket.settimeout(SECONDS)
                assert connection.read_answer() is None
        assert kept.request("GET", "/backup").status == 200


@pytest.mark.parametrize("soft, expected", [(1024, 16384), (17_000, 17_000)])
def test_descriptor_limit_is_raised(foreground, soft, expected):
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    daemon = foreground(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard)))
    assert descriptor_limits(daemon.pid) == (min(expected, hard), hard)


def test_descriptor_limit_of_the_administrator_stands(foreground):
    daemon = foreground(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (64, 512)))
    assert descriptor_limits(daemon.pid) == (512, 512)


# Content of the log.

LOOSE = "a line of its own"
FORGED = "2026-01-01 00:00:00.000 [INFO:]     Agent daemon stopped"


def check_clean(text, before):
    """Checks that the log has no control characters except newlines, and no forged line."""
    new = text[before:]
    assert new
    assert re.findall(r"[\x00-\x09\x0b-\x1f\x7f-\x9f]", new) == []
    assert not [line for line in new.split("\n") if line.startswith((FORGED, LOOSE))]


def test_control_characters_stay_out_of_the_log(agent, client, other):
    """They are escaped, whichever client sends them, and in whichever part of a request."""
    assert client.request("POST", "/logLevel", b'{"severity": 0}').status == 200
    shown, logged = len(agent.output), len(agent.log)
    text = f"\x1b[2J\x07\r\n{FORGED}\n{LOOSE}\n\u009b2J\x7f"
    raw = text.encode() + b"\x9b"
    hostile = urllib.parse.quote_from_bytes(raw)
    escaped = json.dumps(raw.decode("latin-1")).encode()
    for who in (client, other):
        who.request("GET", f"/{hostile}")
        who.request("GET", f"/event?{hostile}={hostile}&lines={hostile}")
        who.request("GET", f"/backup/{hostile}")
        who.request("DELETE", f"/backup/{hostile}")
        for url in ("/config", "/backup", "/pair", "/logLevel", "/nowhere"):
            who.request("POST", url, raw)
            who.request("POST", url, b"{%s: %s}" % (escaped, escaped))
            who.request("POST", url, b'{"interface": %s, "volumes": [{"guid": %s}]}' % (escaped, escaped))
    check_clean(agent.output, shown)
    check_clean(agent.log, logged)
    assert r"\x1b[2J\x07\r\n2026-01-01" in agent.log


@pytest.mark.parametrize("key", ["guid", "qualifiedName", "target", "username", "password", "scriptname"])
def test_names_with_a_nul_are_refused(appliance, key):
    entry = {"guid": "0f1e", "offset": 0, "qualifiedName": "iqn", "target": "t", "lun": 1, "username": "",
             "password": "", "scriptsPrePost": []}
    if key == "scriptname":
        entry["scriptsPrePost"] = [{key: "stop\0.old"}]
    else:
        entry[key] = "a\0b"
    answer = appliance.start({"volumes": [entry]})
    assert (answer.status, answer.content) == (400, f"the text of '{key}' holds a NUL character")


def test_url_does_not_end_at_a_nul(client):
    """Otherwise a URL with a NUL would name another backup."""
    answer = client.request("GET", "/backup/abc%00def")
    assert (answer.status, answer.body) == (400, b"A backup with ID abc%00def does not exist.")
    assert client.request("GET", "/backup%00/more").status == 400


# The settings can be read back at the next start.

def test_settings_that_could_not_be_read_back_are_refused(foreground, agent, appliance):
    assert appliance.set_config({"log.lifetimeHours": 72}).status == 200
    answer = appliance.set_config({"autoupdate.channel": "x" * 1_100_000})
    assert (answer.status, answer.content) == (
        400,
        "Failed to set config options: The configuration could not be read back: larger than 1048576 bytes")
    assert agent.stop() == 0
    foreground()
    assert appliance.config().content == {"log.lifetimeHours": 72}


def test_four_thousand_settings(appliance):
    options = {f"volumes.{number}.cowFileSizeMiB": number for number in range(4000)}
    assert appliance.set_config(options).status == 200
    assert appliance.config().content == options
