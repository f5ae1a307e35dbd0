"""The device API of the real daemon: who may use it, and the calls that are neither about backups nor about
the log."""
import json

import pytest

from lab.appliance_client import DEVICE
from lab.daemon import CONFIG
from lab.driver import INFO
from lab.https_client import Client

OTHER = 4712
DISK = "0f1e2d3c-0000-4000-8000-000000000001"
TEXT, JSON = "text/plain", "application/json"
PAIRED_ONLY = {
    ("GET", "/backup"): "backupList", ("POST", "/backup"): "backup", ("GET", "/backup/"): "backupStatus",
    ("GET", "/backup/abc"): "backupStatus", ("DELETE", "/backup/abc"): "backupCancel",
    ("GET", "/event"): "logs", ("POST", "/logLevel"): "logLevel", ("GET", "/config"): "configGet",
    ("POST", "/config"): "configSet", ("GET", "/v2/driver/status"): "driverStatus",
}
UNIMPLEMENTED = {
    ("POST", "/agentPairTicket"): "pairTicket", ("POST", "/command"): "command",
    ("GET", "/upgrade"): "upgradeGet", ("POST", "/upgrade"): "upgradeDo",
    ("POST", "/updsptcmdmod"): "updateSupportModule", ("GET", "/v2/system/services"): "services",
    ("GET", "/v2/system/updates"): "pendingUpdate",
}
INVALID = [("POST", "/host"), ("GET", "/command"), ("GET", "/host/"), ("GET", "/Event"), ("PUT", "/backup"),
           ("DELETE", "/backup"), ("GET", "/pair"), ("POST", "/v2/feature"), ("GET", "/"),
           ("GET", "/backup2")]


# Access.

def test_nothing_is_served_before_pairing(agent, connect_appliance, database):
    """Requests that need a paired device are refused, with a warning in the log. The daemon has cached that
    there is no paired device: a row that is added to the database by other means changes nothing."""
    stranger = connect_appliance()
    for (method, url), name in PAIRED_ONLY.items():
        assert stranger.request(method, url) == (401, TEXT, "Unauthorized"), url
        line = f"[WARNING:]  Unauthorized request from device {DEVICE} for {name} [failure:not-paired]\n"
        agent.wait_for_log(line)
    database("insert into device (id, ip, agentUUID) values (?, '127.0.0.1', '')", DEVICE)
    assert stranger.backups().status == 401
    assert stranger.features().status == stranger.install().status == 200
    assert stranger.pair(DEVICE).status == 200
    assert stranger.backups().status == 200


def test_pairing_is_for_good(foreground, connect_appliance, database):
    """The device is stored in the database, and the next start loads it."""
    daemon = foreground()
    appliance = connect_appliance()
    assert appliance.pair(DEVICE) == (200, JSON, "")
    assert f"[INFO:]     Pair request from deviceID {DEVICE} accepted\n" in daemon.log
    assert database("select * from device") == [(DEVICE, "127.0.0.1", "")]
    assert daemon.stop() == 0
    foreground()
    assert appliance.backups().status == 200
    assert connect_appliance(OTHER).backups().status == 401


def test_another_device_takes_over(appliance, connect_appliance, database):
    other = connect_appliance(OTHER)
    assert other.backups().status == 401
    assert other.pair(OTHER).status == 200
    assert other.backups().status == 200
    assert appliance.backups() == (401, TEXT, "Unauthorized")
    assert database("select * from device") == [(OTHER, "127.0.0.1", "")]


def test_changed_address(agent, appliance, site_authority, site_device, database):
    """A known device is served from a new address, which the database stores; a stranger's address isn't
    stored."""
    elsewhere = Client(site_authority.certificate, site_device(DEVICE), source="127.0.0.2")
    assert elsewhere.request("GET", "/backup").status == 200
    assert database("select * from device") == [(DEVICE, "127.0.0.2", "")]
    assert "[DEBUG:]    IPV4: 127.0.0.2\n" in agent.output
    stranger = Client(site_authority.certificate, site_device(OTHER), source="127.0.0.3")
    assert stranger.request("GET", "/backup").status == 401
    assert database("select * from device") == [(DEVICE, "127.0.0.2", "")]
    assert appliance.backups().status == 200
    assert database("select * from device") == [(DEVICE, "127.0.0.1", "")]


@pytest.mark.parametrize("body, shown, reason", [
    (b"", 0, "invalid JSON"), (b"{", 0, "invalid JSON"), (b"[]", 0, "invalid JSON"),
    (b"{}", 0, "invalid JSON"),
    (b'{"deviceID": "4711"}', 0, "invalid JSON"), (b'{"deviceID": null}', 0, "invalid JSON"),
    (b'{"deviceID": 4294972007}', 0, "invalid JSON"), (b'{"deviceID": 4711} 1', 0, "invalid JSON"),
    (b'{"deviceID": 4711, "x": "\xff"}', 0, "invalid JSON"),
    (b'{"deviceID": 0}', 0, "invalid device ID"), (b'{"deviceID": -1}', -1, "invalid device ID"),
    (b'{"deviceID": 4712}', 4712, "device ID mismatch"),
])
def test_refused_pairing(agent, appliance, database, body, shown, reason):
    """Only the log says why, and the earlier pairing stays."""
    assert appliance.request("POST", "/pair", body) == (400, TEXT, "")
    line = f"[ERROR:]    Pair request from deviceID {shown} rejected ({reason}) [failure:pairing-refused]\n"
    assert line in agent.log
    assert "[WARNING:]  Bad API request for pair: \n" in agent.log
    assert database("select * from device") == [(DEVICE, "127.0.0.1", "")]
    assert appliance.backups().status == 200


def test_calls_without_a_handler(agent, connect_appliance):
    """The handler is looked up before the client is checked: this appliance isn't paired."""
    stranger = connect_appliance()
    for (method, url), name in UNIMPLEMENTED.items():
        assert stranger.request(method, url) == (501, TEXT, "Not implemented."), url
        assert f"[ERROR:]    Attempted unimplemented API request for {name}.\n" in agent.log


@pytest.mark.parametrize("method, url", INVALID)
def test_calls_that_do_not_exist(agent, connect_appliance, method, url):
    assert connect_appliance().request(method, url) == (400, TEXT, "Invalid request.")
    assert "[INFO:]     Rejected invalid API request\n" in agent.log


def test_what_is_logged_of_a_request(agent, appliance):
    """Every request is logged at level debug, except for the call that the appliance polls: only a refusal of
    that is logged."""
    shown = len(agent.output)
    appliance.request("POST", "/logLevel", '{"severity": 2}')
    lines = [line[24:] for line in agent.output[shown:].splitlines()]
    assert lines[:6] == ["[DEBUG:]    Handling request", f"[DEBUG:]    Request from device id: {DEVICE}",
                         "[DEBUG:]    IPV4: 127.0.0.1", "[DEBUG:]    METHOD: POST",
                         "[DEBUG:]    URL: /logLevel", '[DEBUG:]    DATA: {"severity": 2}']
    shown = len(agent.output)
    for _ in range(5):
        assert appliance.status("abc") == (400, TEXT, "A backup with ID abc does not exist.")
    lines = [line[24:] for line in agent.output[shown:].splitlines() if "Bad API request" not in line]
    assert [line for line in lines if not line.startswith("[DEBUG:]    no url args")] == []
    assert "[WARNING:]  Bad API request for backupStatus: A backup with ID abc does not exist.\n" in agent.log


# The small calls.

def test_config(foreground, agent, appliance):
    """New values are stored, shown and still there after a restart; the other settings don't change."""
    options = {"log.lifetimeHours": 72, "holepunch.enabled": True, "autoupdate.channel": "any",
               f"volumes.{DISK}.cowFileSizeMiB": 4096}
    assert appliance.set_config(options) == (200, TEXT, "")
    assert json.loads(CONFIG.read_text()) == appliance.config().content == options
    assert appliance.set_config({"log.lifetimeHours": 8760}).status == 200
    options["log.lifetimeHours"] = 8760
    assert agent.stop() == 0
    again = foreground()
    assert json.loads(CONFIG.read_text()) == appliance.config().content == options
    assert "Found invalid agent configuration option" not in again.log


@pytest.mark.parametrize("body, reason", [
    ('{"log.lifetimeHours": 72', "Failed to parse JSON config set request: "),
    ("", "Failed to parse JSON config set request: "),
    ("[1, 2]", "Failed to set config options: "),
    ('{"holepunch.enabled": true, "log.lifetimeHours": 0}', "Failed to set config options: "),
    ('{"holepunch.enabled": true, "no.such.option": 1}', "Failed to set config options: "),
    ('{"holepunch.enabled": true, "zz.autoupdate.channel": "x"}', "Failed to set config options: "),
    ('{"holepunch.enabled": 1}', "Failed to set config options: "),
])
def test_refused_config(appliance, body, reason):
    """If one value is refused, none is stored."""
    assert appliance.set_config({"log.lifetimeHours": 72}).status == 200
    before = CONFIG.read_bytes()
    status, content_type, text = appliance.request("POST", "/config", body)
    assert (status, content_type) == (400, TEXT)
    assert text.startswith(reason)
    assert CONFIG.read_bytes() == before
    assert appliance.config().content == {"log.lifetimeHours": 72}


def test_features(agent, connect_appliance):
    """The features beyond the first version of the API, for any device."""
    status, content_type, features = connect_appliance().features()
    assert (status, content_type) == (200, JSON)
    assert sorted(features, key=lambda feature: feature["name"]) == [
        {"name": "secure_pairing", "version": "1.0", "minVersion": "1.0"},
        {"name": "zephane", "version": "2.0", "minVersion": "2.0"}]
    assert "[DEBUG:]     Features: [" in agent.output


def test_install(agent, connect_appliance):
    assert connect_appliance().install() == (200, JSON, {"rebootRequired": False})


def test_driver_status_without_a_driver(no_driver, appliance):
    assert appliance.driver() == (200, JSON, {"driverStatus": "Not Available"})


def test_driver_status(driver, appliance):
    """The answer has the driver's own text, unchanged."""
    text = INFO.read_text(encoding="utf-8")
    assert json.loads(text)["devices"] == []
    assert appliance.driver() == (200, JSON, {"driverStatus": text})
