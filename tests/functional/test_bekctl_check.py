"""bekctl check: each check must find what it looks for, and report nothing if there is nothing to report."""
import json
import os
import pathlib
import shutil
import socket
import time

import pytest

from backup_site import EXT4, XFS, device_of, fill_some
from bekctl import UNUSABLE, UNWELL, WELL, json_of, output_of, run_bekctl
from lab import certificates
from lab.appliance_client import DEVICE
from lab.commands import run
from lab.daemon import BASE, CERTIFICATES, CONFIG, DATABASE, LOGS, SCRIPTS, program
from lab.driver import hide_driver, show_driver, show_status

ROOMY = EXT4.__class__("data", "ext4", mebibytes=640, mount_point=EXT4.mount_point)
VOLUMES = (ROOMY, XFS)


class Report:
    """One run of bekctl check."""

    def __init__(self, *arguments):
        done = run_bekctl("check", "--json", *arguments)
        assert done.returncode in (WELL, UNWELL) and done.stderr == "", done
        self.document = json.loads(done.stdout)
        self.checks = self.document["checks"]
        self.status = done.returncode
        failures = sum(check["verdict"] == "failure" for check in self.checks)
        assert (self.document["failures"], self.status) == (failures, UNWELL if failures else WELL)

    def about(self, name, volume=None):
        found = [check for check in self.checks
                 if check["name"] == name and volume in (None, check["volume"])]
        assert len(found) == 1, (name, self.checks)
        return found[0]

    def verdict(self, name, volume=None):
        return self.about(name, volume)["verdict"]

    def failed(self):
        return {check["name"] for check in self.checks if check["verdict"] == "failure"}


def test_no_agent_at_all(site):
    report = Report()
    assert report.status == UNWELL
    assert {"agent", "port", "database"} <= report.failed()
    assert all(check["remedy"] for check in report.checks if check["verdict"] in ("warning", "failure"))


def test_no_services(site):
    """This test comes before those that start the services."""
    report = Report()
    assert report.verdict("bus") == "failure"
    assert report.verdict("volume") == "failure"


def test_wrong_targets(site):
    for target in "", ":1", "a:b", "host:99999":
        assert run_bekctl("check", "--target", target).returncode == UNUSABLE, target


@pytest.mark.bare_site
def test_no_certificates(site):
    assert {"certificate-agent", "certificate-authority"} <= Report().failed()


def test_key_of_another_certificate(site, site_device):
    shutil.copy(site_device(DEVICE).key, CERTIFICATES / "server.key")
    report = Report()
    assert (report.verdict("key"), report.verdict("trust")) == ("failure", "ok")


def test_certificate_of_another_authority(site, tmp_path):
    other = certificates.Authority(tmp_path)
    shutil.copy(other.certificate, CERTIFICATES / "ca.crt")
    report = Report()
    assert (report.verdict("key"), report.verdict("trust")) == ("ok", "failure")


def test_settings(agent):
    assert Report().verdict("settings") == "ok"
    CONFIG.write_text('{"log.lifetimeHours": 0}')
    report = Report()
    assert report.verdict("settings") == "warning"
    assert "Found invalid agent configuration option" in report.about("settings")["text"]
    CONFIG.write_text("{")
    assert Report().verdict("settings") == "failure"


def test_database(agent, connect_appliance):
    report = Report()
    assert (report.verdict("database"), report.verdict("pairing")) == ("ok", "failure")
    assert connect_appliance().pair(DEVICE).status == 200
    assert Report().verdict("pairing") == "ok"
    content = DATABASE.read_bytes()
    DATABASE.write_bytes(content[:4096])
    try:
        assert Report().verdict("database") == "failure"
    finally:
        DATABASE.write_bytes(content)


def test_scripts(site):
    SCRIPTS.mkdir(parents=True)
    script = SCRIPTS / "quiesce"
    script.write_text("#!/bin/sh\n")
    script.chmod(0o755)
    assert Report().verdict("script") == "ok"
    script.chmod(0o644)
    assert Report().verdict("script") == "warning"
    script.chmod(0o777)
    report = Report()
    assert report.verdict("script") == "failure"
    assert "others than root can write" in report.about("script")["text"]


def test_room_for_the_log(site, tmpfs):
    shutil.rmtree(BASE, ignore_errors=True)
    tmpfs(BASE, "size=300m")
    assert Report().verdict("disk") == "ok"
    (BASE / "filling").write_bytes(bytes(150 << 20))
    assert Report().verdict("disk") == "warning"
    (BASE / "filling").write_bytes(bytes(295 << 20))
    assert Report().verdict("disk") == "failure"


def test_target(site):
    assert Report().verdict("target") == "open"
    with socket.create_server(("127.0.0.1", 0)) as server:
        place = f"127.0.0.1:{server.getsockname()[1]}"
        assert Report("--target", place).verdict("target") == "ok"
    assert Report("--target", place).verdict("target") == "failure"


def test_target_that_the_log_names(protect, volumes):
    """The target is that of the last failed login."""
    protection = protect("data")
    with socket.create_server(("127.0.0.1", 0)) as server:
        place = f"127.0.0.1:{server.getsockname()[1]}"
    assert protection.run(volumes=protection.request("data", target=place), full=True).state != "finished"
    report = Report()
    assert report.verdict("target") == "failure"
    assert place.replace(":", " port ") in report.about("target")["text"]


def test_driver(volume_site, agent):
    show_driver()
    assert Report().verdict("driver") == "ok"
    hide_driver()
    try:
        assert Report().verdict("driver") == "failure"
        show_driver()
        show_status([])
        pathlib.Path("/run/tolvubd/version").write_text("0.9.15\n")
        pathlib.Path("/run/tolvubd/info").write_text('{"version": "0.9.15", "devices": []}')
        assert Report().verdict("driver") == "failure"
    finally:
        show_driver()


def test_all_is_well_and_what_then_goes_wrong(protect, volumes):
    """Where the check reports a failure, the next backup fails for the same reason."""
    protection = protect("data")
    fill_some(volumes, protection.partitions, "a")
    assert protection.run(full=True).state == "finished"
    uuid = volumes["data"].uuid
    report = Report("--target", protection.images["data"].request_keys()["target"])
    assert report.failed() == set(), output_of("check", status=UNWELL)
    for name in "volume", "tracking", "history", "reload-script", "room":
        assert report.verdict(name, uuid) == "ok", name

    reload_script = BASE / f"reload_{device_of(volumes['data'])['minor']}"
    reload_script.rename(BASE / "elsewhere")
    assert Report().verdict("reload-script", uuid) == "warning"
    (BASE / "elsewhere").rename(reload_script)

    history = pathlib.Path(ROOMY.mount_point, ".tolvu.inc")
    history.rename(history.with_name("elsewhere"))
    assert Report().verdict("history", uuid) == "failure"
    backup = protection.run()
    assert backup.state == "failed" and "Could not properly create snapshot files" in backup.log
    history.with_name("elsewhere").rename(history)

    free = os.statvfs(ROOMY.mount_point)
    filling = pathlib.Path(ROOMY.mount_point, "filling")
    filling.write_bytes(bytes(free.f_bfree * free.f_bsize - (50 << 20)))
    os.sync()
    report = Report()
    assert report.verdict("room", uuid) == "failure"
    backup = protection.run()
    assert backup.state == "failed" and "not enough free space" in backup.log
    filling.unlink()


def test_second_backup_of_a_small_volume(protect, volumes):
    """Two CoW files of the default size don't fit. With the recommended size, all backups find room."""
    protection = protect("data")
    key = f"volumes.{volumes['data'].uuid}.cowFileSizeMiB"
    protection.set_cow_size(320, "data")
    assert protection.run(full=True).state == "finished"
    about = Report().about("room", volumes["data"].uuid)
    assert about["verdict"] == "failure"
    recommended = about["remedy"].partition(f"{key} to ")[2].partition(",")[0]
    protection.set_cow_size(int(recommended), "data")
    for number in range(3):
        assert Report().verdict("room", volumes["data"].uuid) == "ok", number
        fill_some(volumes, protection.partitions, str(number))
        backup = protection.run()
        assert backup.state == "finished", (number, backup.log)


def test_volume_that_is_not_mounted_any_more(protect, volumes):
    protection = protect("data")
    assert protection.run(full=True).state == "finished"
    uuid = volumes["data"].uuid
    run(program("tolvuctl"), "destroy", device_of(volumes["data"])["minor"])
    assert Report().verdict("tracking", uuid) == "warning"
    run("umount", ROOMY.mount_point)
    try:
        wait_until_unmounted(volumes["data"])
        assert Report().verdict("volume", uuid) == "failure"
    finally:
        run("mount", volumes["data"].device, ROOMY.mount_point)


def wait_until_unmounted(partition):
    """Waits until udisks2 has noticed, which takes a moment."""
    deadline = time.monotonic() + 20
    while any(volume["mountPoints"] for volume in json_of("volumes")["volumes"]
              if volume["uuid"] == partition.uuid):
        assert time.monotonic() < deadline
        time.sleep(0.1)


def test_volume_that_is_gone(agent, volume_site, database):
    database("insert into volumes (volume_uuid) values ('gone')")
    assert Report().verdict("volume", "gone") == "warning"


def test_log_that_cannot_be_read(agent):
    today = next(LOGS.glob("bek_*.log"))
    other = today.with_name("bek_2020-01-01.log")
    os.mkfifo(other)
    try:
        assert Report().verdict("log") == "warning"
    finally:
        other.unlink()
    assert Report().verdict("log") == "ok"
