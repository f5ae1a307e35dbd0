"""The device API of the real daemon: the requests of an appliance, and their effects."""
import datetime
import json
import uuid

import pytest

from lab.appliance_client import DEVICE, volume
from lab.daemon import CONFIG, LOGS
from lab.driver import INFO, STATUS, driver_version
from lab.https_client import Client
from lab.services import wait_until

SECONDS = 20
OTHER = 4712
DISK = "0f1e2d3c-0000-4000-8000-000000000001"
UNKNOWN = "00000000-0000-4000-8000-00000000ffff"
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


def disk(guid=DISK, **changes):
    """A volume of a backup request; nothing listens at its target."""
    return volume(guid, target="127.0.0.1:3260", name="iqn.2026-01.example:one", lun=1) | changes


def without(entry, key):
    return {name: value for name, value in entry.items() if name != key}


# Access.

def test_nothing_is_served_before_pairing(agent, connect_appliance, database):
    """Requests that need a paired device are refused, with a warning in the log. The daemon has cached that
    nobody is paired: a row that is added to the database by other means changes nothing."""
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


# Backups.

def wait_for_end(appliance, identifier):
    """Waits for the end of a backup; returns its last status."""
    def ended():
        status = appliance.status(identifier).content
        return status if status["status"] != "active" else None

    return wait_until(ended, SECONDS, "end of the backup")


def test_backup_of_a_volume_that_does_not_exist(driver, lab_site, agent, appliance):
    """The backup starts, fails and says why; the list has it among the failed ones."""
    assert appliance.backups().content == {"active": [], "failed": [], "finished": []}
    status, content_type, identifier = appliance.backup([disk()], full=True)
    assert (status, content_type) == (201, TEXT)
    assert str(uuid.UUID(identifier)) == identifier
    ended = wait_for_end(appliance, identifier)
    assert ended.pop("elapsedTime") >= 0
    [detail] = ended.pop("details")
    assert ended == {"connection_error": False, "snapshot_error": False, "status": "failed"}
    assert detail.pop("transfer")["bytesTransferred"] == 0
    assert detail == {"volume": DISK, "status": "failed", "type": "incremental"} # until it is copied
    agent.wait_for_log("Backup run finished\n")
    for line in ("[INFO:]     Handling backup start call", f"[INFO:]     Driver version: {driver_version()}",
                 "[INFO:]     Backup transport interface: iSCSI",
                 f"[ERROR:]    Volume {DISK} could not be found. [failure:volume-not-found]",
                 "[ERROR:]    Exception caught during backup run: Cannot backup non existing volume. "
                 "[failure:volume-not-found]",
                 f"[INFO:]     Backup {identifier} FAILED!"):
        assert line + "\n" in agent.log
    assert appliance.backups().content == {"active": [], "failed": [identifier], "finished": []}


def test_object_of_volumes(driver, appliance):
    """An object is accepted in place of an array; its keys are ignored."""
    identifier = appliance.backup({"a": disk(), "b": disk("two")}, merge=True).content
    details = wait_for_end(appliance, identifier)["details"]
    assert {detail["volume"] for detail in details} == {DISK, "two"}


REFUSED = {
    "no JSON": ("{", 500, "parse error"),
    "no object": ([], 500, "type_error"),
    "no volumes": ({}, 400, "request missing key: volumes"),
    "empty volumes": ({"volumes": []}, 500, "Empty volume UUID list supplied."),
    "empty guid": ({"volumes": [disk("")]}, 500, "Invalid volume UUID supplied."),
    "first zephane": ({"volumes": [disk()], "interface": "zephane"}, 500, "Zephane v1 not supported!"),
    "a volume twice": ({"volumes": [disk(), disk()]}, 500,
                       "Could not insert a volume attributes object into the attributes map."),
    "volume that is none": ({"volumes": [7]}, 400, "cannot use at() with number"),
    "script without a name": ({"volumes": [disk(scriptsPrePost=[{"timeout": 9}])]}, 400,
                              "'scriptname' not found"),
    "negative offset": ({"volumes": [disk(offset=-1)]}, 400, "'offset': number out of range: -1"),
    "null offset": ({"volumes": [disk(offset=None)]}, 400, "type must be number, but is null"),
    "null flag": ({"volumes": [disk()], "forceCopyFull": None}, 500, "type must be boolean, but is null"),
    "null interface": ({"volumes": [disk()], "interface": None}, 500, "type must be string, but is null"),
    "interface that is no text": ({"volumes": [disk()], "interface": 7}, 500, "type must be string"),
    "zephane target": ({"volumes": [disk(target="10.0.0.1:3260:1")], "interface": "zephaneftp"}, 500,
                       "Could not interpret target as address:host"),
    "zephane port": ({"volumes": [disk(target="10.0.0.1:x")], "interface": "zephaneftp"}, 500, "stoi"),
    "second volume": ({"volumes": [disk(), without(disk("two"), "lun")]}, 400, "'lun' not found"),
    **{f"without {key}": ({"volumes": [without(disk(), key)]}, 400, f"key '{key}' not found")
       for key in disk()},
    **{f"wrong {key}": ({"volumes": [disk(**{key: False})]}, 400, "") for key in disk()},
}


def test_refused_backups(driver, agent, appliance):
    """Each request is refused with its status and its reason, and none leaves a backup behind."""
    for what, (request, status, reason) in REFUSED.items():
        body = request if isinstance(request, str) else json.dumps(request)
        answer = appliance.request("POST", "/backup", body)
        assert (answer.status, answer.content_type) == (status, TEXT), f"{what}: {answer}"
        assert answer.content and reason in answer.content, what
        shown = ("[WARNING:]  Bad API request for backup: " if status == 400 else
                 "[ERROR:]    Internal server error on request backup: ")
        assert shown + answer.content + "\n" in agent.log
    assert appliance.backups().content == {"active": [], "failed": [], "finished": []}
    assert "Backup run beginning" not in agent.log


def test_backup_without_the_driver(no_driver, appliance):
    answer = appliance.backup([disk()])
    assert answer == (500, TEXT, "Could not open driver version file. tolvubd is not present on your system!")
    assert appliance.backups().content == {"active": [], "failed": [], "finished": []}


@pytest.mark.parametrize("interface, target, requested, used", [
    (None, "10.0.0.1:3260:1", "<not specified>", "iSCSI"), ("foo", "nonsense", "foo", "iSCSI"),
    ("zephaneftp", "10.0.0.1:70000", "zephaneftp", "zephaneftp"),
])
def test_transports(driver, agent, appliance, interface, target, requested, used):
    answer = appliance.backup([disk(target=target)], interface=interface)
    assert answer.status == 201
    assert f"[DEBUG:]    Backup transport interface requested: {requested}\n" in agent.output
    assert f"[INFO:]     Backup transport interface: {used}\n" in agent.log
    wait_for_end(appliance, answer.content)


def test_script_without_a_timeout(driver, agent, appliance):
    """Only a missing timeout causes a remark in the log."""
    scripts = [("never", 0), ("negative", -5), "missing", ("fraction", 90.5)]
    request = {"volumes": [volume(DISK, target="", name="", lun=0, scripts=scripts)]}
    request["volumes"][0]["scriptsPrePost"].append({"scriptname": "text", "timeout": "10"})
    assert appliance.start(request).status == 201
    start = "No timeout value given for PPS script '"
    remarks = [line.split(start)[1] for line in agent.output.splitlines() if start in line]
    assert [remark.split("'")[0] for remark in remarks] == ["missing"]
    assert f"[DEBUG:]    {start}missing'; using default (err: " in agent.output


def test_backups_on_top_of_one_another(driver, appliance):
    """A new backup replaces the running one. In the end all have failed, and the oldest are forgotten."""
    first, second = (appliance.backup([disk()]).content for _ in range(2))
    for identifier in (first, second):
        assert wait_for_end(appliance, identifier)["status"] == "failed"
    assert sorted(appliance.backups().content["failed"]) == sorted([first, second])

    answers = [appliance.backup([disk()]) for _ in range(7)]
    for answer in answers:
        assert answer.status == 201 or answer == (
            400, TEXT, "Too many backup requests while waiting for cancelling backup")
    wait_until(lambda: appliance.backups().content["active"] == [], SECONDS, "end of all backups")
    listed = appliance.backups().content
    assert listed["finished"] == []
    assert set(listed["failed"]) <= {first, second, *(answer.content for answer in answers)}
    last = next(answer.content for answer in reversed(answers) if answer.status == 201)
    assert last in listed["failed"]
    # Of nine, at least two: so many had ended when there were too many, one goes for each that comes then.
    assert 0 < len(listed["failed"]) <= 7


def test_cancel(driver, agent, appliance):
    """Both outcomes are an answer like any other."""
    def refusal(text):
        return 200, JSON, {"success": False, "errorString": text}

    assert appliance.cancel(UNKNOWN) == refusal(f"A backup with ID {UNKNOWN} does not exist.")
    assert appliance.cancel("") == refusal("A backup with ID  does not exist.")
    identifier = appliance.backup([disk()]).content
    wait_for_end(appliance, identifier)
    agent.wait_for_log("Backup run finished\n")
    assert appliance.cancel(identifier) == (200, JSON, {"success": True, "errorString": ""})
    assert appliance.cancel(identifier) == refusal(f"Backup with ID {identifier} is already canceled")
    assert appliance.backups().content["failed"] == [identifier]


# Logs.

LEVELS = {5: "[CRITICAL:] ", 4: "[ERROR:]    ", 3: "[WARNING:]  ", 2: "[INFO:]     ", 1: "[DEBUG:]    "}


def day(age):
    return datetime.date.today() - datetime.timedelta(days=age)


def write_log(age, lines):
    (LOGS / f"bek_{day(age)}.log").write_text("".join(line + "\n" for line in lines))


def log_line(age, text, severity=2):
    return f"{day(age)} 12:00:00.500 {LEVELS[severity]}{text}"


def logged(appliance, **arguments):
    """The texts in the answer to a log request, which must report no problems."""
    status, content_type, content = appliance.logs(**arguments)
    assert (status, content_type) == (200, JSON)
    assert content["error"] == []
    return [line["message"] for line in content["log"]]


def test_log_entries(agent, appliance):
    """The text, severity and time of a line, and the lines that belong to it."""
    write_log(1, [log_line(1, "first"), "more of it", log_line(1, "broken", severity=4)])
    noon = datetime.datetime.combine(day(1), datetime.time(12))
    assert appliance.logs(last=str(day(1))).content == {"error": [], "log": [
        {"message": "first\nmore of it", "severity": 2, "timestamp": int(noon.timestamp())},
        {"message": "broken", "severity": 4, "timestamp": int(noon.timestamp())}]}
    everything = logged(appliance)
    assert {"first\nmore of it", "broken", f"Pair request from deviceID {DEVICE} accepted"} < set(everything)


def test_log_lines(agent, appliance):
    """The newest lines: a thousand by default, ten thousand at most."""
    texts = [f"line {number}" for number in range(10_050)]
    write_log(1, [log_line(1, text) for text in texts])
    until = str(day(1))
    assert logged(appliance, last=until) == texts[-1000:]
    assert logged(appliance, last=until, lines=3) == texts[-3:]
    assert logged(appliance, last=until, lines=0) == []
    assert logged(appliance, last=until, lines=10_000) == texts[-10_000:]
    warning = "[WARNING:]  Ignoring lines parameter value which exceeds maximum of 10000\n"
    assert warning not in agent.log
    assert logged(appliance, last=until, lines=20_000) == texts[-10_000:]
    assert agent.log.count(warning) == 1


def test_log_dates(agent, appliance):
    """A file is read if its day is in the range. An invalid date is no limit. Files that are eight days old,
    or have another name, are never read."""
    for age in (1, 2, 3, 8):
        write_log(age, [log_line(age, f"{age} days ago")])
    (LOGS / "notes.log").write_text(log_line(1, "notes") + "\n")

    def ages(**arguments):
        texts = logged(appliance, lines=10_000, **arguments)
        return {int(text[0]) for text in texts if text.endswith("days ago")}

    assert ages() == {1, 2, 3}
    assert ages(first=str(day(2))) == {1, 2}
    assert ages(last=str(day(2))) == {2, 3}
    assert ages(first=str(day(2)), last=str(day(2))) == {2}
    assert ages(first=str(day(1)), last=str(day(2))) == set()
    assert ages(first="garbage", last="2026-13-45") == {1, 2, 3}
    assert ages(first=str(day(30))) == {1, 2, 3}
    assert "notes" not in logged(appliance, lines=10_000)


def test_log_severity(appliance):
    """Lines of this severity and above; with no severity, or an invalid one, those from info on."""
    write_log(1, [log_line(1, f"severity {number}", number) for number in LEVELS])

    def severities(severity):
        return {int(text[-1]) for text in logged(appliance, last=str(day(1)), severity=severity)}

    for number in LEVELS:
        assert severities(number) == set(range(number, 6))
    for other in (None, 0, 6, -1):
        assert severities(other) == {2, 3, 4, 5}
    answer = appliance.logs(severity="loud")
    assert (answer.status, answer.content_type) == (500, TEXT)


def test_log_problems(agent, appliance):
    """Files that can't be read are reported, and the others are read."""
    write_log(1, ["belongs to nothing", log_line(1, "good")])
    (LOGS / f"bek_{day(2)}.log").mkdir()
    content = appliance.logs(last=str(day(1))).content
    assert [line["message"] for line in content["log"]] == ["good"]
    [unreadable] = [text for text in content["error"] if text.startswith("failed")]
    [stray] = [text for text in content["error"] if text != unreadable]
    assert unreadable == f"failed reading log file for {day(2)}"
    assert stray.startswith(f"{day(1)} line 1")


def test_empty_log_directory(appliance):
    appliance.log_level("min")
    for path in LOGS.iterdir():
        path.unlink()
    assert appliance.logs() == (200, JSON, {"log": [], "error": []})


def test_log_that_is_no_text(agent, appliance):
    """A request writes bytes that aren't UTF-8 to the log; the rest of the log can still be read."""
    assert appliance.log_level("debug").status == 200
    assert appliance.request("POST", "/pair", b"\xff\xfe\x80").status == 400
    texts = logged(appliance, severity=1)
    assert any(text.startswith("DATA: \N{REPLACEMENT CHARACTER}") for text in texts)


@pytest.mark.parametrize("severity, name", [
    (0, "max"), (1, "debug"), (2, "info"), (3, "warning"), (4, "error"), (5, "critical"), (6, "min"),
    (9, "min"), (-1, "max"), (1e300, "min"), (-1e30, "max"),
])
def test_log_level(foreground, agent, appliance, database, severity, name):
    """The threshold applies to the file at once and after the next start; the screen always shows the changes
    of it. A number outside of the range is replaced by the nearest valid one."""
    assert appliance.log_level(severity) == (200, TEXT, "")
    assert f"[DEBUG:]    Log level set to {name}\n" in agent.output
    clamped = [float(line.split("severity = ")[1].split("'")[0]) for line in agent.output.splitlines()
               if line.endswith("' being clamped into range [0, 6]")]
    assert clamped == ([] if severity in range(7) else [severity])
    assert database("select value from config where key = 'log_level'") == [(name,)]

    def passes(level, text, of):
        return f"{level}{text}\n" in of.log

    appliance.request("POST", "/pair", "{")
    numbers = {"max": 0, "debug": 1, "info": 2, "warning": 3, "error": 4, "critical": 5, "min": 6}
    rejected = "Pair request from deviceID 0 rejected (invalid JSON) [failure:pairing-refused]"
    assert passes(LEVELS[4], rejected, agent) == (numbers[name] <= 4)
    assert passes(LEVELS[3], "Bad API request for pair: ", agent) == (numbers[name] <= 3)
    assert passes(LEVELS[1], "DATA: {", agent) == (numbers[name] <= 1)
    assert agent.stop() == 0
    again = foreground()
    assert again.stop() == 0
    assert passes(LEVELS[2], "HTTP server started", again) == (numbers[name] <= 2)
    assert passes(LEVELS[1], "HTTP server stopping", again) == (numbers[name] <= 1)


@pytest.mark.parametrize("body, reason", [
    ("{", "JSON parsing error in logLevel callback "), ("", "JSON parsing error in logLevel callback "),
    ("{}", "logLevel event received with no 'severity' parameter sent"),
    ("[]", "logLevel event received with no 'severity' parameter sent"),
    ('{"severity": "info"}', "logLevel 'severity' parameter must be a number, but is string"),
])
def test_refused_log_level(appliance, database, body, reason):
    status, content_type, text = appliance.request("POST", "/logLevel", body)
    assert (status, content_type) == (400, TEXT)
    assert text.startswith(reason)
    assert database("select value from config where key = 'log_level'") == []


# The small calls.

def test_config(foreground, agent, appliance):
    """What is set is stored, shown and still there after a restart; the other settings don't change."""
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
    """The driver's own text, unchanged."""
    text = INFO.read_text(encoding="utf-8")
    assert json.loads(text)["devices"] == []
    assert appliance.driver() == (200, JSON, {"driverStatus": text})


def test_driver_without_a_version(driver, no_driver, appliance):
    STATUS.mkdir()
    assert appliance.backup([disk()]) == (500, TEXT, "Could not open driver version file "
                                          '"/run/tolvubd/version". Error: No such file or directory')
