"""The stand-in snapshot driver on real volumes: its promises to its callers."""
import concurrent.futures
import errno
import fcntl
import os
import pathlib
import shutil
import subprocess
import uuid

import pytest

from lab import driver, filesystems
from lab.commands import run
from lab.driver import STATUS, STORE, info, nodes
from lab.filesystems import kind_of
from lab.images import fsck, tree_hashes
from lab.loops import make_node
from snapshot_site import copy_snapshot
from tolvubd_checks import (NODE, check_record, check_refused, driver_devices, small, take_snapshot, track,
                            write_tree)
from tolvubd_site import SNAPSHOT, TRACKING, Cow, call, cow_files, expect_loops, must, states, tolvuctl

ROOT = pathlib.Path(__file__).parents[2]
captures = pytest.mark.captures


@pytest.fixture
def volume(make_volume):
    return make_volume()


@pytest.fixture(params=filesystems.freezable())
def any_volume(request, make_volume):
    return make_volume(request.param)


def mounted(node, filesystem):
    return filesystems.mounted(filesystem, node, "/run/snapshot", kind_of(filesystem).read_only_options)


def test_snapshot_shows_the_volume_as_it_was(any_volume, tmp_path):
    """Every file is as it was, nothing later is visible, the file system is clean, and the snapshot is
    read-only."""
    write_tree(any_volume, 1)
    before = tree_hashes(any_volume.mount_point)
    take_snapshot(any_volume)
    write_tree(any_volume, 2)
    (any_volume.mount_point / "later").write_text("later")

    with mounted(NODE, any_volume.filesystem) as target:
        assert tree_hashes(target) == before
        assert (target / ".tolvu").stat().st_size == 4 << 20
    fsck(copy_snapshot(NODE, tmp_path / "copy"), any_volume.filesystem)
    assert run("blockdev", "--getro", NODE) == "1"
    assert run("blockdev", "--getss", NODE) == run("blockdev", "--getss", any_volume.device)
    assert int(run("blockdev", "--getsize64", NODE)) == any_volume.size


def test_status_follows_the_device(volume):
    assert info() == {"version": "0.10.0", "devices": []}
    assert (STATUS / "version").read_text(encoding="ascii") == "0.10.0\n"
    device = {"minor": 3, "cow_file": "/.tolvu", "block_device": str(volume.device), "error": 0}
    take_snapshot(volume, minor=3)
    assert driver_devices() == [{**device, "state": SNAPSHOT}]
    assert nodes() == ["tolvu3"]
    volume.place.expect(shown=1, kept=1)
    must("transition_incremental", 3)
    assert driver_devices() == [{**device, "state": TRACKING}]
    assert nodes() == []
    volume.place.expect(shown=0, kept=1)
    must("transition_snapshot", 3, volume.other_cow, 4)
    assert driver_devices() == [{**device, "cow_file": "/.tolvu1", "state": SNAPSHOT}]
    assert nodes() == ["tolvu3"]
    volume.place.expect(shown=1, kept=1)
    must("destroy", 3)
    assert info()["devices"] == []
    assert cow_files(volume) == [".tolvu"]


def test_status_does_not_wait_for_a_busy_driver(volume):
    """A reader of the status gets the last one that was written, and the current one as soon as the driver is
    free."""
    take_snapshot(volume)
    (STATUS / "info").write_text("stale")
    with open(STORE / "lock", "rb") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        must("start")
        assert (STATUS / "info").read_text() == "stale"
    must("start")
    assert states() == {0: SNAPSHOT}


def test_cow_file_begins_whole_and_empty(volume):
    take_snapshot(volume, mebibytes=8)
    cow = Cow(volume.cow, volume)
    assert (cow.magic, cow.version, cow.changed) == (4776, 1, 0)
    assert cow.length == 8 << 20
    assert cow.allocated >= 8 << 20
    assert cow.changed_units == []
    assert not any(cow.rest)
    assert volume.cow.stat().st_mode & 0o7777 == 0o600
    [device] = driver.stored_state()["devices"]
    assert device["snapshot"] == str(uuid.UUID(bytes=cow.snapshot))


@pytest.mark.parametrize("filesystem", filesystems.freezable())
def test_table_marks_what_has_changed(make_volume, filesystem, tmp_path):
    """The table is compared with the test's own comparison, on a size that isn't a multiple of a unit, over
    several rounds. A unit that comes into use counts as changed, whatever its content."""
    volume = make_volume(filesystem, small(filesystem) + 3)
    write_tree(volume, 1)
    take_snapshot(volume)
    before = copy_snapshot(NODE, tmp_path / "0")
    closed, current = volume.cow, volume.other_cow
    for number in range(2):
        must("transition_incremental", 0)
        write_tree(volume, 10 + number)
        (volume.mount_point / "d1" / "f1").unlink()
        volume.write(f"zeros {number}", bytes(1 << 20))
        must("transition_snapshot", 0, current, 4)
        after = copy_snapshot(NODE, tmp_path / str(number + 1))
        record = Cow(closed, volume)
        differing = check_record(volume, record, before, after, closed.name)
        assert record.changed == len(record.changed_units) >= len(differing) + 256 > 266
        assert not any(record.rest)
        assert Cow(current, volume).changed == 0
        before, closed, current = after, current, closed


def test_table_covers_the_last_unit(make_volume):
    """The last bytes of the device, fewer than a unit, are compared too."""
    volume = make_volume(sectors=small("ext4") + 3)
    track(volume)
    with open(volume.device, "r+b") as device:
        device.seek(-1, os.SEEK_END)
        device.write(b"x")
        os.fsync(device.fileno())
    must("transition_snapshot", 0, volume.other_cow, 4)
    assert Cow(volume.cow, volume).changed_units[-1] == (volume.size - 1) // 4096


def test_setup_replaces_a_cow_file_of_nobody(volume):
    take_snapshot(volume)
    shutil.copy(volume.cow, volume.mount_point / "kept")
    must("destroy", 0)
    (volume.mount_point / "kept").rename(volume.cow)
    take_snapshot(volume, mebibytes=8)
    assert volume.cow.stat().st_size == 8 << 20


def test_setup_replaces_what_layers_have_left(volume):
    """Those files are locked, even if the volume is captured this time."""
    take_snapshot(volume)
    shutil.copy(volume.cow, volume.mount_point / "kept")
    must("destroy", 0)
    (volume.mount_point / "kept").rename(volume.cow)
    era = volume.mount_point / ".tolvu.era"
    era.write_bytes(b"left")
    run("chattr", "+i", volume.cow, era)
    take_snapshot(volume, mebibytes=8)
    assert volume.cow.stat().st_size == 8 << 20
    assert not era.exists() or era.stat().st_size > len("left")


def test_mounted_snapshot_stays(volume):
    take_snapshot(volume)
    with mounted(NODE, volume.filesystem):
        check_refused(volume, errno.EBUSY, "transition_incremental", 0)
        check_refused(volume, errno.EBUSY, "destroy", 0)
    must("transition_incremental", 0)


@captures
def test_reader_of_a_snapshot_keeps_it_to_the_end(volume):
    """If a device is open when its snapshot ends, it can still be read, and goes when it is closed."""
    take_snapshot(volume)
    with open(NODE, "rb") as reader:
        must("destroy", 0)
        assert nodes() == []
        assert len(reader.read()) == volume.size
    expect_loops(0)


def test_reconfigure_keeps_the_cache_size(volume):
    take_snapshot(volume)
    must("reconfigure", 0, 300)
    [device] = driver.stored_state()["devices"]
    assert device["cache_size"] == 300


def test_tolvuctl_speaks_to_operators(volume):
    take_snapshot(volume)
    listed = tolvuctl("list")
    assert listed.returncode == 0
    assert [line.split()[:4] for line in listed.stdout.splitlines()[1:]] == \
        [["0", "snapshot", str(volume.device), "/.tolvu"]]
    for wrong in ([], ["destroy"], ["destroy", "x"], ["destroy", "-1"], ["list", "0"], ["reload-snapshot"]):
        done = tolvuctl(*wrong)
        assert (done.returncode, done.stdout) == (2, "")
        assert "usage:" in done.stderr
    missing = tolvuctl("destroy", 9)
    assert (missing.returncode, missing.stderr) == (1, "tolvuctl: device 9: No such file or directory\n")
    assert tolvuctl("destroy", 0).returncode == 0
    assert len(tolvuctl("list").stdout.splitlines()) == 1


def test_log_tells_how_long_the_volume_stood_still(volume, system_log):
    take_snapshot(volume)
    line = system_log.wait_for("was frozen for")
    assert (line["ident"], line["priority"]) == ("tolvubd", "30")
    text = line["text"].split()
    assert text[0] == str(volume.device.resolve())
    assert 0 <= int(text[4]) < 5000
    assert " ".join(text[5:]) == volume.place.frozen_text.format(volume.size)
    call("destroy", 7)
    assert "device 7" in system_log.wait_for("destroy has failed")["text"]


def test_callers_take_turns(make_volume):
    """Processes that work on different volumes at the same time don't disturb each other."""
    volumes = [make_volume(name=f"volume{number}", sectors=16 * 2048) for number in range(3)]

    def cycle(minor):
        volume = volumes[minor]
        for _ in range(3):
            must("setup_snapshot", minor, volume.device, volume.cow, 1)
            must("transition_incremental", minor)
            must("transition_snapshot", minor, volume.other_cow, 1)
            assert states()[minor] == SNAPSHOT
            must("destroy", minor)

    with concurrent.futures.ThreadPoolExecutor() as pool:
        list(pool.map(cycle, range(len(volumes))))
    assert (states(), nodes()) == ({}, [])
    volumes[0].place.expect(shown=0, kept=0)


@captures
def test_snapshot_has_no_twin(volume):
    """With the driver's rule, udev gives the snapshot none of the links of its volume."""
    rule = pathlib.Path("/run/udev/rules.d/59-tolvubd.rules")
    rule.parent.mkdir(parents=True, exist_ok=True)
    shutil.copy(ROOT / "platform/tolvubd" / rule.name, rule)
    if os.path.ismount("/run/udev"): # a machine's own udev checks for new rules only every few seconds
        run("udevadm", "control", "--reload")
    take_snapshot(volume)
    number = NODE.stat().st_rdev
    loop = pathlib.Path("/sys/dev/block", f"{os.major(number)}:{os.minor(number)}").resolve()
    make_node(loop.name)
    name = "by-uuid/" + run("blkid", "-o", "value", "-s", "UUID", volume.device)

    def udev_says():
        done = subprocess.run(["udevadm", "test", "--action=change", loop], capture_output=True, text=True,
                              check=True)
        return done.stdout + done.stderr

    assert name not in udev_says()
    rule.unlink()
    assert name in udev_says()
    shutil.rmtree(rule.parent if os.path.ismount("/run/udev") else "/run/udev") # a machine's own udev goes on
