"""Backups in the device API of the real daemon: orders and their refusal, status, list and cancellation."""
import json
import uuid

import pytest

from lab.appliance_client import volume
from lab.driver import STATUS, driver_version
from lab.services import wait_until

DISK = "0f1e2d3c-0000-4000-8000-000000000001"
SECONDS = 20
UNKNOWN = "00000000-0000-4000-8000-00000000ffff"
TEXT, JSON = "text/plain", "application/json"


def disk(guid=DISK, **changes):
    """A volume of a backup request; nothing listens at its target."""
    return volume(guid, target="127.0.0.1:3260", name="iqn.2026-01.example:one", lun=1) | changes


def without(entry, key):
    return {name: value for name, value in entry.items() if name != key}


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
    # At least two of the nine are forgotten: beyond the limit, each new backup removes one that has ended.
    assert 0 < len(listed["failed"]) <= 7


def test_cancel(driver, agent, appliance):
    """An accepted cancel and a refused one are both answered with status 200."""
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


def test_driver_without_a_version(driver, no_driver, appliance):
    STATUS.mkdir()
    assert appliance.backup([disk()]) == (500, TEXT, "Could not open driver version file "
                                          '"/run/tolvubd/version". Error: No such file or directory')
