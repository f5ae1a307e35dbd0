"""bekctl, which examines an agent: its output for each state, and that the agent isn't affected."""
import json
import os
import pathlib
import pty
import re
import signal
import socket
import subprocess

import pytest

from backup_site import EXT4, XFS, fill_some
from bekctl import UNUSABLE, UNWELL, json_of, output_of, run_bekctl
from lab.appliance_client import DEVICE
from lab.commands import run
from lab.daemon import CERTIFICATES, DATABASE, LOGS, PID_FILE, ROOT, program, stored_log
from lab.volumes import Volume

COMMANDS = ("status", "volumes", "backups", "pairing", "certificates", "check")
PAGE = (ROOT / "tools" / "bekctl" / "README.md").read_text(encoding="utf-8")
VOLUMES = (EXT4, XFS, Volume("spare", "ext4", mebibytes=64), Volume("swap", "swap", mebibytes=64))


def test_help_and_version_need_no_root():
    for arguments in ("--help",), ("--version",), *((command, "--help") for command in COMMANDS):
        done = run_bekctl(*arguments, user=65534)
        assert (done.returncode, done.stderr) == (0, ""), done
    assert output_of("--version") == "bekctl 2.1.23.0\n"


def test_whoever_is_not_root_is_told():
    for command in COMMANDS:
        done = run_bekctl(command, user=65534)
        assert (done.returncode, done.stdout, done.stderr) == (UNUSABLE, "", "bekctl: must be run as root\n")


def test_wrong_commands():
    for arguments in (), ("nonsense",), ("status", "--nonsense"), ("status", "volumes"):
        assert run_bekctl(*arguments).returncode == UNUSABLE, arguments
    assert run_bekctl("nonsense").stderr.startswith("there is no command nonsense\n")
    assert run_bekctl("log", "--lines", "-1").stderr.startswith("--lines: is negative: -1\n")


def test_no_agent():
    status = json_of("status", status=UNWELL)
    assert status["agent"]["running"] is False
    assert status["agent"]["port"]["state"] == "closed"
    assert "does not run" in output_of("status", status=UNWELL)


def test_agent_in_the_background(background):
    daemon = background()
    agent = json_of("status")["agent"]
    assert (agent["running"], agent["pid"], agent["foreground"]) == (True, daemon.pid, False)
    assert (agent["port"]["state"], agent["port"]["ownerPid"]) == ("answers", daemon.pid)
    assert agent["programReplaced"] is False
    assert f"runs, process {daemon.pid} since " in output_of("status")


def test_agent_in_the_foreground(agent):
    status = json_of("status")["agent"]
    assert (status["running"], status["pid"], status["foreground"]) == (True, agent.pid, True)


def test_number_that_nobody_has_locked(background):
    """The PID file stays after a stop or a kill, and later any process may have that PID."""
    background().stop()
    assert PID_FILE.exists()
    PID_FILE.write_text(str(os.getpid()))
    assert json_of("status", status=UNWELL)["agent"]["running"] is False


def test_foreign_program_at_the_port(site):
    with socket.create_server(("0.0.0.0", 25567)):
        port = json_of("status", status=UNWELL)["agent"]["port"]
        assert (port["state"], port["ownerPid"]) == ("foreign", os.getpid())


def test_agent_that_does_not_answer(background):
    daemon = background()
    daemon.send(signal.SIGSTOP)
    try:
        port = json_of("status", status=UNWELL)["agent"]["port"]
    finally:
        daemon.send(signal.SIGCONT)
    assert (port["state"], port["problem"]) == ("silent", "no answer within 3 seconds")


def test_certificate_that_was_replaced_on_disk(background, site_authority):
    background()
    (CERTIFICATES / "server.pem").write_bytes(pathlib.Path(site_authority.certificate).read_bytes())
    assert json_of("status", status=UNWELL)["agent"]["port"]["state"] == "stranger"


def test_looking_leaves_nothing_in_the_log(background):
    """bekctl doesn't prevent the agent from starting either: it only tests the lock, and never takes it."""
    background()
    before = stored_log()
    for _ in range(20):
        json_of("status")
    assert stored_log() == before


def test_pairing(agent, connect_appliance):
    assert json_of("pairing", status=UNWELL)["paired"] is False
    assert output_of("pairing", status=UNWELL) == "Not paired: no appliance can order a backup.\n"
    assert connect_appliance().pair(DEVICE).status == 200
    pairing = json_of("pairing")
    assert (pairing["paired"], pairing["deviceId"], pairing["address"]) == (True, DEVICE, "127.0.0.1")
    assert output_of("pairing") == f"Paired with device {DEVICE} at 127.0.0.1.\n"
    assert json_of("status")["pairing"]["deviceId"] == DEVICE


def test_database_that_is_none(site):
    DATABASE.parent.mkdir(parents=True, exist_ok=True)
    for content in b"", b"nonsense", b"SQLite format 3\0" + bytes(4000):
        DATABASE.write_bytes(content)
        done = run_bekctl("pairing")
        assert (done.returncode, done.stdout) == (UNUSABLE, ""), content
        assert done.stderr.startswith("bekctl: "), content


def test_write_that_was_cut_off(agent, connect_appliance):
    """An interrupted write that SQLite would first roll back isn't shown as the truth."""
    assert connect_appliance().pair(DEVICE).status == 200
    journal = pathlib.Path(f"{DATABASE}-journal")
    journal.write_bytes(b"\xd9\xd5\x05\xf9\x20\xa1\x63\xd7" + bytes(504))
    try:
        done = run_bekctl("pairing")
    finally:
        journal.unlink()
    assert done.returncode == UNUSABLE
    assert "is being written all the time, or a write was cut off" in done.stderr


def test_certificates(site):
    found = json_of("certificates")
    own, authority = found["certificates"]
    assert (own["name"], authority["name"]) == ("agent", "authority")
    assert (found["keyBelongsToCertificate"], found["certificateIsFromAuthority"]) == (True, True)
    assert {own["validity"], authority["validity"]} == {"valid"}
    assert own["issuer"] == authority["subject"]
    assert own["daysLeft"] > 0
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", own["notAfter"])


def test_certificates_that_do_not_belong_together(site, site_device):
    """The key belongs to another certificate."""
    (CERTIFICATES / "server.key").write_bytes(pathlib.Path(site_device(DEVICE).key).read_bytes())
    found = json_of("certificates", status=UNWELL)
    assert (found["keyBelongsToCertificate"], found["certificateIsFromAuthority"]) == (False, True)


@pytest.mark.bare_site
def test_no_certificates(site):
    assert "server.pem can't be read" in output_of("certificates", status=UNWELL)


def test_no_udisks(site):
    """This test comes before those that start udisks."""
    done = run_bekctl("volumes")
    assert (done.returncode, done.stdout) == (UNUSABLE, "")
    assert "Cannot initialize udisks client" in done.stderr


def test_volumes(volume_site):
    found = {volume["mountPoints"][0] if volume["mountPoints"] else volume["label"]: volume
             for volume in json_of("volumes")["volumes"]}
    data, files = found[EXT4.mount_point], found[XFS.mount_point]
    assert (data["fileSystem"], files["fileSystem"]) == ("ext4", "xfs")
    for name, volume in ("data", data), ("files", files):
        partition = volume_site.disk[name]
        status = os.statvfs(partition.volume.mount_point)
        assert (volume["device"], volume["uuid"]) == (partition.device, partition.uuid)
        assert (volume["canBeBackedUp"], volume["obstacle"], volume["driver"]) == (True, None, None)
        assert volume["usedBytes"] == (status.f_blocks - status.f_bfree) * status.f_frsize
        assert volume["room"]["freeBytes"] == status.f_bfree * status.f_bsize
        assert volume["room"]["cowFileBytes"] == volume["sizeBytes"] // 2 # half of so small a volume
        assert volume["room"]["neededBytes"] == volume["sizeBytes"] // 2 + 8 + volume["sizeBytes"] // 512
    assert (found["spare"]["obstacle"], found["<swap>"]["obstacle"]) == ("not mounted", "swap space")
    table = output_of("volumes")
    assert f"{volume_site.disk['data'].device}, UUID {volume_site.disk['data'].uuid}" in table


def volume_of(partition):
    """The entry of a volume in bekctl's output."""
    return next(volume for volume in json_of("volumes")["volumes"] if volume["device"] == partition.device)


def test_volume_that_is_read_only(volume_site):
    partition = volume_site.disk["data"]
    run("mount", "-o", "remount,ro", partition.volume.mount_point)
    try:
        volume = volume_of(partition)
    finally:
        run("mount", "-o", "remount,rw", partition.volume.mount_point)
    assert volume["canBeBackedUp"] is False
    assert volume["obstacle"].startswith("mounted read-only")


def test_state_of_the_driver(protect, volumes):
    protection = protect("data")
    assert protection.run(full=True).state == "finished"
    volume = volume_of(volumes["data"])
    assert (volume["driver"]["state"], volume["driver"]["error"]) == ("tracked", 0)
    assert volume["room"]["cowFileBytes"] == 100 << 20
    driver = json_of("status")["driver"]
    assert (driver["kind"], driver["version"]) == ("stand-in", "0.10.0")


def test_backup_does_not_notice_who_looks(protect, volumes):
    """The agent doesn't wait for a lock of its database: if a reader took one, the backup would fail."""
    protection = protect()
    loop = f"while :; do {program('bekctl')} status --json; {program('bekctl')} pairing; done"
    looking = [subprocess.Popen(["sh", "-c", loop], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                start_new_session=True) for _ in range(2)]
    try:
        for seed, kind in ("a", {"full": True}), ("b", {}), ("c", {"merge": True}), ("d", {}):
            fill_some(volumes, protection.partitions, seed)
            backup = protection.run(**kind)
            assert backup.state == "finished", backup.log
            assert "locked" not in backup.log
            assert "failing back" not in backup.log and "falling back" not in backup.log
            protection.verify()
    finally:
        for process in looking:
            os.killpg(process.pid, signal.SIGKILL)
        errors = [process.communicate()[1] for process in looking]
    assert errors == [b"", b""]


def on_terminal(*arguments, environment=None):
    """The output on a terminal of 80 columns."""
    own, other = pty.openpty()
    with os.fdopen(own, "rb", buffering=0) as reader:
        with os.fdopen(other, "wb", buffering=0) as writer:
            done = subprocess.run([program("bekctl"), *arguments], stdin=subprocess.DEVNULL, stdout=writer,
                                  check=False, timeout=60, env={**os.environ, **(environment or {})})
        assert done.returncode in (0, 1)
        pieces = []
        while True:
            try:
                piece = reader.read(65536)
            except OSError: # the other end has been closed
                return b"".join(pieces).decode()
            if not piece:
                return b"".join(pieces).decode()
            pieces.append(piece)


def test_colours_are_for_terminals_only(volume_site):
    assert "\x1b[" in on_terminal("volumes")
    assert "\x1b[" not in on_terminal("volumes", "--no-color")
    assert "\x1b[" not in on_terminal("volumes", environment={"NO_COLOR": "1"})
    assert "\x1b[" not in on_terminal("volumes", "--json")
    assert "\x1b[" not in output_of("volumes")


def test_lines_fit_a_terminal(volume_site):
    plain = on_terminal("volumes", "--no-color")
    assert max(map(len, plain.splitlines())) <= 80, plain


def documented(title):
    """The keys of an object, according to the manual page."""
    row = next(line for line in PAGE.splitlines() if line.startswith(f"| {title} |"))
    return set(re.findall(r"`(\w+)`", re.sub(r"\([^)]*\)", "", row.split("|")[2])))


def test_keys_are_those_of_the_page(protect, volumes):
    assert protect("data").run(full=True).state == "finished"
    status, found, backups = json_of("status"), json_of("volumes"), json_of("backups")
    certificates, reasons = json_of("certificates"), json_of("reasons")
    check = json.loads(run_bekctl("check", "--json").stdout)
    volume = next(volume for volume in found["volumes"] if volume["driver"])
    for title, document in (
            ("`status`", status), ("`status` `agent`", status["agent"]),
            ("`status` `agent` `port`", status["agent"]["port"]), ("`status` `pairing`", status["pairing"]),
            ("`status` `driver`", status["driver"]), ("`volumes`", found), ("a volume", volume),
            ("a volume's `driver`", volume["driver"]), ("a volume's `room`", volume["room"]),
            ("`backups`", backups), ("a backup", backups["backups"][0]), ("`pairing`", json_of("pairing")),
            ("`certificates`", certificates), ("a certificate", certificates["certificates"][0]),
            ("`check`", check), ("a check", check["checks"][0]), ("`reasons`", reasons),
            ("a reason", reasons["reasons"][0])):
        assert set(document) == documented(title), title
    names = set(re.findall(r"`([a-z0-9-]+)`", PAGE.partition("## Checks")[2].partition("`room` counts")[0]))
    assert {entry["name"] for entry in check["checks"]} <= names


def test_backups_and_their_reasons(protect, volumes):
    """The backups and their reasons come from the agent's log."""
    nothing = json_of("backups")
    assert (nothing["backups"], nothing["runningSince"]) == ([], None)
    assert "The log tells of no backup." in output_of("backups")
    protection = protect("data", "files")
    for kind, asked, became in (({}, "INCREMENTAL", "FULL"), ({"merge": True}, "DIFFERENTIAL MERGE",
                                                              "DIFFERENTIAL MERGE"),
                                ({}, "INCREMENTAL", "INCREMENTAL")):
        backup = protection.run(**kind)
        assert backup.state == "finished", backup.log
        records = {record["volume"]: record for record in json_of("backups")["backups"]}
        assert set(records) == {partition.uuid for partition in protection.partitions.values()}
        for name, partition in protection.partitions.items():
            record = records[partition.uuid]
            assert (record["asked"], record["type"], record["outcome"]) == (asked, became, "success"), record
            assert (record["backup"], record["copiedBytes"]) == (backup.id, backup.bytes(name))
            codes = {reason["code"] for reason in record["reasons"]}
            assert ("volume-unknown" in codes) == (asked != became), record
    assert json_of("backups")["volumesWithoutRecord"] == []
    for path in LOGS.glob("bek_*.log"):
        path.unlink()
    assert len(json_of("backups")["volumesWithoutRecord"]) == 2
    assert "the log doesn't go back so far" in output_of("backups")


def test_backup_that_fails_and_one_that_runs(protect, volumes):
    protection = protect("data")
    with socket.create_server(("127.0.0.1", 0)) as server:
        place = f"127.0.0.1:{server.getsockname()[1]}"
    backup = protection.start(volumes=protection.request("data", target=place), full=True)
    backup.wait_for_log("Try: 1")
    assert json_of("status")["backupRunningSince"] is not None
    assert backup.wait().state != "finished"
    assert json_of("status")["backupRunningSince"] is None
    record = json_of("backups")["backups"][0]
    assert record["outcome"] == "failed"
    assert {"target-refused", "target-unreachable"} & {reason["code"] for reason in record["reasons"]}


def test_reasons_need_no_root():
    done = run_bekctl("reasons", user=65534)
    assert (done.returncode, done.stderr) == (0, "")
    assert "volume-unknown (fallback)" in done.stdout
