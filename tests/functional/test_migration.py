"""The state that the daemon takes over from an earlier version at its start, and the sizes of CoW files."""
import contextlib
import json
import os
import pathlib
import re
import signal
import sqlite3

import pytest

from lab.daemon import BASE, CONFIG
from narrow_pipe import fill
from snapshot_site import EXT4, XFS, SnapshotSite

LEGACY = BASE / "bekd.sqlite"
MIGRATED = BASE / "bekd.sqlite.tolvu-migrated"
STOP_SIGNALS = {signal.SIGINT, signal.SIGQUIT, signal.SIGTERM, signal.SIGHUP}
OLD_UUID = "11111111-2222-3333-4444-555555555555"


@pytest.fixture
def lab_site(site):
    with SnapshotSite() as made:
        CONFIG.unlink()
        yield made


def make_legacy(statements=""):
    BASE.mkdir(parents=True, exist_ok=True)
    with contextlib.closing(sqlite3.connect(LEGACY)) as connection:
        connection.executescript(
            "create table device (id integer not null); create table config (name text, value text);"
            "create table history (id integer primary key, device text, volume text, result text, "
            "image_chksum integer);" + statements)
    return LEGACY.read_bytes()


def cow_sizes(lab_site):
    """The CoW sizes in the settings for the site's volumes. Other volumes belong to other users of the
    machine."""
    stored = json.loads(CONFIG.read_text())
    keys = {name: f"volumes.{lab_site[name].uuid}.cowFileSizeMiB" for name in ("data", "files")}
    return {name: stored[key] for name, key in keys.items() if key in stored}


def cow_size(lab_site, name, file):
    """The size of a CoW file in MiB."""
    return (lab_site.mount_point(name) / file).stat().st_size / (1 << 20)


def test_state_is_taken_over_once(lab_site, foreground, database):
    """Device, identity, checksums and CoW sizes are taken over; a second start has nothing to do."""
    data = lab_site["data"]
    content = make_legacy(
        f"insert into device values (4711); insert into config values ('agentUUID', '{OLD_UUID}'), "
        "('cow_percent', '50'), ('max_cow_megs', '150');"
        "insert into history (device, result, image_chksum) values "
        f"('/dev/disk/by-uuid/{data.uuid}', 'success', 7), "
        f"('/dev/disk/by-uuid/{data.uuid}', 'success', 12345), ('{data.uuid}', 'failed', 9);")
    assert foreground().stop() == 0
    assert database("select id, ip, agentUUID from device") == [(4711, "", "")]
    assert database("select value from config where key = 'agentUUID'") == [(OLD_UUID,)]
    assert database("select volume_uuid, image_checksum, image_checksum_type from volumes") == [
        (data.uuid, "12345", "gcrypt32crc")]
    assert cow_sizes(lab_site) == {"data": EXT4.mebibytes // 2, "files": 150}
    assert not LEGACY.exists()
    assert MIGRATED.read_bytes() == content

    CONFIG.write_text("{}")
    again = foreground()
    assert f"Agent installation UUID: {OLD_UUID}\n" in again.log
    assert f"The legacy database ({LEGACY}) doesn't exist" in again.output
    assert again.stop() == 0
    assert cow_sizes(lab_site) == {}


def signals(pid, thread, field):
    """The signals in a field of a thread's status."""
    status = pathlib.Path(f"/proc/{pid}/task/{thread}/status").read_text(encoding="utf-8")
    mask = int(re.search(rf"^{field}:\s*([0-9a-f]+)$", status, re.MULTILINE)[1], 16)
    return {number for number in signal.Signals if mask >> (number - 1) & 1}


def threads(pid):
    """The names of a process's threads, except the initial one."""
    found = {int(path.name): (path / "comm").read_text(encoding="utf-8").strip()
             for path in pathlib.Path(f"/proc/{pid}/task").iterdir()}
    del found[pid]
    return found


def test_stop_signals_are_left_to_the_initial_thread(lab_site, foreground):
    """The threads that libraries made while the volumes were examined block the stop signals."""
    make_legacy()
    daemon = foreground()
    found = threads(daemon.pid)
    assert "gdbus" in found.values()
    for thread, name in found.items():
        assert STOP_SIGNALS <= signals(daemon.pid, thread, "SigBlk"), name
    assert not STOP_SIGNALS & signals(daemon.pid, daemon.pid, "SigBlk")


def test_second_signal_does_not_cut_a_stop_short(lab_site, make_daemon):
    """The stop is blocked by a terminal that isn't read, when the next signal comes."""
    make_legacy()
    reader, writer = os.pipe()
    daemon = make_daemon(stdout=writer)
    os.close(writer)
    output = b""
    while b"Agent daemon started" not in output:
        output += os.read(reader, 65536)
    fill(reader)
    daemon.send(signal.SIGTERM)
    daemon.wait_for(lambda: STOP_SIGNALS <= signals(daemon.pid, daemon.pid, "SigBlk"), "the stop")
    for number in STOP_SIGNALS:
        daemon.send(number)

    def are_held_back():
        """Whether every thread blocks all of the signals: none has been delivered, and none can be."""
        return (STOP_SIGNALS <= signals(daemon.pid, daemon.pid, "ShdPnd") and
                all(STOP_SIGNALS <= signals(daemon.pid, thread, "SigBlk") for thread in threads(daemon.pid)))

    daemon.wait_for(are_held_back, "the further signals")
    with os.fdopen(reader, "rb") as rest:
        output = rest.read().lstrip(b" ").decode()
    assert daemon.wait() == 0
    assert output.count("Stopping services...") == 1
    assert output.endswith("Agent daemon stopped\n")


def lost_history(lab_site):
    """The path of the missing history of a tracked volume, as an earlier version leaves it."""
    lab_site.set_cow_size(100)
    lab_site.run_session("data", incremental=False)
    history = lab_site.mount_point("data") / ".tolvu.inc"
    history.unlink()
    return history


def test_what_exists_already_stays(lab_site, foreground, database):
    """If the file can't be renamed, its data is moved again at the next start, where existing values stay."""
    data = lab_site["data"]
    history = lost_history(lab_site)
    make_legacy("insert into device values (4711); insert into history (device, result, image_chksum) values "
                f"('{data.uuid}', 'success', 12345);")
    MIGRATED.mkdir()
    assert foreground().stop() == 0
    assert not any(history.read_bytes()[4096:])
    owed = bytearray(history.read_bytes())
    owed[4096] = 1
    history.write_bytes(owed)
    database("update device set id = 4712, ip = '10.0.0.1'")
    database("update volumes set image_checksum = '54321'")
    assert foreground().stop() == 0
    assert history.read_bytes() == owed
    assert database("select id, ip from device") == [(4712, "10.0.0.1")]
    assert database("select image_checksum from volumes") == [("54321",)]


def test_sizes_that_were_taken_over_are_used(lab_site, foreground):
    """The next snapshot uses the sizes: 40 % of one volume, and the other volume's limit."""
    make_legacy("insert into config values ('cow_percent', '40'), ('max_cow_megs', '110');")
    assert foreground().stop() == 0
    with lab_site.session(incremental=False) as session:
        session.start()
        assert cow_size(lab_site, "data", ".tolvu") == int(EXT4.mebibytes * 0.4)
        assert cow_size(lab_site, "files", ".tolvu") == 110 < XFS.mebibytes * 0.4
        session.end("success")


def test_volume_that_was_tracked_is_owed_nothing(lab_site, foreground):
    """A history is made for it, so that its next backup can be incremental."""
    history = lost_history(lab_site)
    make_legacy()
    assert foreground().stop() == 0
    assert not any(history.read_bytes()[4096:])
    assert lab_site.own_files("files") == []
    started, _ = lab_site.run_session("data")
    assert started["data"]["incrementalPreserved"] is True


def test_without_volumes_the_next_start_tries_again(foreground, database):
    """The daemon runs nevertheless."""
    make_legacy("insert into device values (4711);")
    daemon = foreground()
    assert "[ERROR:]    Failed to migrate the legacy database data!\n" in daemon.log
    assert "[ERROR:]    Failed to migrate legacy database!\n" in daemon.log
    assert daemon.stop() == 0
    assert LEGACY.exists()
    with SnapshotSite((EXT4,)):
        assert foreground().stop() == 0
    assert MIGRATED.exists() and not LEGACY.exists()
    assert database("select id from device") == [(4711,)]


def test_directory_in_place_of_the_file(foreground):
    """It is reported and isn't changed, and the daemon runs."""
    LEGACY.mkdir(parents=True)
    daemon = foreground()
    assert "[ERROR:]    Exception caught while attempting to migrate the legacy database: " in daemon.log
    assert daemon.stop() == 0
    assert LEGACY.is_dir()


def test_new_name_that_is_taken(lab_site, foreground, database):
    """The data is taken over again at each start until the file can be renamed."""
    make_legacy("insert into device values (4711);")
    MIGRATED.mkdir()
    for _ in range(2):
        daemon = foreground()
        assert f"[ERROR:]    Failed to rename the legacy database to {MIGRATED}\n" in daemon.log
        assert ("[ERROR:]    Failed to rename the legacy database file! Delete this file to prevent "
                "unnecessary data migration!\n") in daemon.log
        assert daemon.stop() == 0
        assert database("select id from device") == [(4711,)]
        database("delete from device")
    MIGRATED.rmdir()
    assert foreground().stop() == 0
    assert MIGRATED.is_file()


def test_size_set_by_the_appliance_is_used(lab_site, appliance):
    """The next snapshot uses it, without a restart of the daemon."""
    key = f"volumes.{lab_site['files'].uuid}.cowFileSizeMiB"
    assert appliance.set_config({key: 120}).status == 200
    with lab_site.session("files", incremental=False) as session:
        session.start()
        assert cow_size(lab_site, "files", ".tolvu") == 120
        assert f"4 Found the {key} configuration option (120)\n" in session.log
        session.end("success")
    assert appliance.set_config({key: 20}).status == 200
    with lab_site.session("files") as session:
        session.start()
        assert cow_size(lab_site, "files", ".tolvu1") == 100
        assert "2 Invalid cow file size (20) Clamping to (100)\n" in session.log
        session.end("success")
