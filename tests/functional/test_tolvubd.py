"""The stand-in snapshot driver on real volumes: its promises to its callers."""
import concurrent.futures
import contextlib
import errno
import fcntl
import os
import pathlib
import random
import shutil
import subprocess
import threading
import uuid

import pytest

from change_records import CaptureExtents, differing_units, in_units, marked_units
from lab import driver, filesystems
from lab.commands import run
from lab.driver import STATUS, STORE, forget_devices, info, nodes
from lab.filesystems import kind_of
from lab.images import fsck, tree_hashes
from lab.loops import make_node
from lab.volumes import SECTORS
from snapshot_site import keep
from tolvubd_site import (Cow, PLACES, SNAPSHOT, TRACKING, Volume, call, cow_files, expect_loops, layers,
                          loops, must, started_driver, states, stored, tolvuctl, unlock)

ROOT = pathlib.Path(__file__).parents[2]
NODE = pathlib.Path("/dev/tolvu0")
captures = pytest.mark.captures


@pytest.fixture(autouse=True)
def fresh_driver(site):
    """A driver without devices; after the test nothing of it may be left outside the volume."""
    with started_driver():
        yield
        forget_devices()
        assert tolvuctl("cleanup").returncode == 0


def small(filesystem):
    """The size of a small volume in sectors."""
    return kind_of(filesystem).mebibytes * SECTORS


@pytest.fixture
def make_volume(fresh_driver, place):
    with contextlib.ExitStack() as stack:
        def make(filesystem="ext4", sectors=None, name="volume"):
            sectors = max(sectors or small(filesystem), place.smallest_sectors)
            volume = stack.enter_context(Volume(name, filesystem, sectors, place))
            stack.callback(forget_devices)
            return volume
        yield make


@pytest.fixture
def volume(make_volume):
    return make_volume()


@pytest.fixture(params=filesystems.freezable())
def any_volume(request, make_volume):
    return make_volume(request.param)


def take_snapshot(volume, minor=0, mebibytes=4):
    must("setup_snapshot", minor, volume.device, volume.cow, mebibytes)


def track(volume, minor=0):
    take_snapshot(volume, minor)
    must("transition_incremental", minor)


def restart_machine():
    """Simulates a restart of the machine: the driver's state in memory is lost, that on the disk is kept."""
    shutil.rmtree(STATUS)
    for node in nodes():
        pathlib.Path("/dev", node).unlink()


def mounted(node, filesystem):
    return filesystems.mounted(filesystem, node, "/run/snapshot", kind_of(filesystem).read_only_options)


def write_tree(volume, seed):
    source = random.Random(seed)
    for number in range(20):
        path = volume.mount_point / f"d{number % 4}" / f"f{number}"
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(source.randbytes(source.randrange(200_000)))


def driver_devices():
    """The devices in the driver's status, with the fields that each of them has."""
    fields = ("minor", "cow_file", "block_device", "state", "error")
    return [{field: device[field] for field in fields} for device in info()["devices"]]


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
    fsck(keep(NODE, tmp_path / "copy"), any_volume.filesystem)
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


def test_check_tells_a_snapshot_from_everything_else(volume):
    check_refused(volume, errno.ENOENT, "check_snapshot", 0)
    take_snapshot(volume)
    must("check_snapshot", 0)
    must("transition_incremental", 0)
    check_refused(volume, errno.EINVAL, "check_snapshot", 0)


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
    """Compared with the test's own comparison, on a size that isn't a multiple of a unit, over several
    rounds. A unit that comes into use counts as changed, whatever its content."""
    volume = make_volume(filesystem, small(filesystem) + 3)
    write_tree(volume, 1)
    take_snapshot(volume)
    before = keep(NODE, tmp_path / "0")
    closed, current = volume.cow, volume.other_cow
    for number in range(2):
        must("transition_incremental", 0)
        write_tree(volume, 10 + number)
        (volume.mount_point / "d1" / "f1").unlink()
        volume.write(f"zeros {number}", bytes(1 << 20))
        must("transition_snapshot", 0, current, 4)
        after = keep(NODE, tmp_path / str(number + 1))
        record = Cow(closed, volume)
        differing = check_record(volume, record, before, after, closed.name)
        assert record.changed == len(record.changed_units) >= len(differing) + 256 > 266
        assert not any(record.rest)
        assert Cow(current, volume).changed == 0
        before, closed, current = after, current, closed


def check_record(volume, record, before, after, closed=".tolvu"):
    """Checks the record of the changes between two captures. Returns the units that the volume's programs
    have changed."""
    then, now = CaptureExtents(before, volume.filesystem), CaptureExtents(after, volume.filesystem)
    below = written_below(volume, now)
    volume.place.check_record(set(record.changed_units), marked_units(then, now, closed), below)
    return set(differing_units(before, after)) - below


def written_below(volume, moment):
    """The units of the driver's own files, which it may write while the snapshot exists."""
    own = in_units(extent for extents in moment.own.values() for extent in extents)
    assert own
    return own if volume.place.keeps_files_below else set()


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


def world(volume):
    state = (STORE / "state.json").read_bytes()
    files = {name: (volume.mount_point / name).lstat()[:2] for name in cow_files(volume)}
    return info(), nodes(), loops(), layers() if PLACES[1:] else [], stored(), files, state


def check_refused(volume, error, function, *arguments):
    before = world(volume)
    result = call(function, *arguments)
    assert (result.value, errno.errorcode.get(result.error)) == (-1, errno.errorcode[error])
    assert world(volume) == before
    volume.write("alive", b"not frozen")


SETUP_REFUSALS = {
    "minor too high": (errno.EINVAL, lambda v: (256, v.device, v.cow, 4)),
    "no such device": (errno.ENOENT, lambda v: (0, "/dev/nothing", v.cow, 4)),
    "a plain file": (errno.ENOTBLK, lambda v: (0, "/etc/passwd", v.cow, 4)),
    "a character device": (errno.ENOTBLK, lambda v: (0, "/dev/null", v.cow, 4)),
    "not mounted": (errno.ENODEV, lambda v: (0, v.place.unmounted(v), v.cow, 4)),
    "a CoW file elsewhere": (errno.EXDEV, lambda v: (0, v.device, "/run/.tolvu", 4)),
    "a CoW file nowhere": (errno.ENOENT, lambda v: (0, v.device, v.mount_point / "none" / ".tolvu", 4)),
    "a relative CoW path": (errno.EINVAL, lambda v: (0, v.device, ".tolvu", 4)),
    "no name": (errno.EINVAL, lambda v: (0, v.device, f"{v.mount_point}/", 4)),
    "no room": (errno.ENOSPC, lambda v: (0, v.device, v.cow, 64)),
    "larger than any file": (errno.EFBIG, lambda v: (0, v.device, v.cow, 2 ** 63)),
    "no room for the table": (errno.EINVAL, lambda v: (0, v.device, v.cow, 0)),
    "a foreign file": (errno.EEXIST, lambda v: (0, v.device, v.mount_point / ".tolvu.foreign", 4)),
    "a link": (errno.EEXIST, lambda v: (0, v.device, v.mount_point / ".tolvu.link", 4)),
    "a directory": (errno.EEXIST, lambda v: (0, v.device, v.mount_point / "lost+found", 4)),
}


def test_setup_checks_first(volume):
    (volume.mount_point / ".tolvu.foreign").write_text("somebody's")
    (volume.mount_point / ".tolvu.link").symlink_to(".tolvu.foreign")
    for error, arguments in SETUP_REFUSALS.values():
        check_refused(volume, error, "setup_snapshot", *arguments(volume))


def test_setup_refuses_what_is_in_use(make_volume):
    volume, other = make_volume(), make_volume(name="other")
    take_snapshot(volume)
    check_refused(volume, errno.EBUSY, "setup_snapshot", 0, other.device, other.cow, 4)
    check_refused(volume, errno.EBUSY, "setup_snapshot", 1, volume.device, volume.other_cow, 4)


@contextlib.contextmanager
def frozen_by_somebody(volume, seconds=10):
    """Freezes the volume, for a limited time, so that processes that wait for it don't hang for ever."""
    thaw = ("fsfreeze", "--unfreeze", volume.mount_point)
    run("fsfreeze", "--freeze", volume.mount_point)
    timer = threading.Timer(seconds, subprocess.run, (thaw,), {"check": False})
    timer.start()
    try:
        yield
    finally:
        timer.cancel()
        run(*thaw)


@pytest.mark.parametrize("left_over", [None, ".tolvu.era", ".tolvu"])
def test_setup_does_not_wait_for_who_has_frozen_the_volume(volume, left_over):
    """Not even if old files have to be removed first."""
    if left_over == ".tolvu":
        take_snapshot(volume)
        driver.restart()
    elif left_over:
        volume.write(left_over, b"of a tracking that is no more")
    before = cow_files(volume)
    with frozen_by_somebody(volume):
        result = call("setup_snapshot", 0, volume.device, volume.cow, 4)
        assert errno.errorcode.get(result.error) == "EBUSY"
        assert cow_files(volume) == before
    take_snapshot(volume)


@captures
def test_setup_refuses_the_volume_of_the_store(volume):
    """Writes to the captures would wait for the frozen file system that holds them."""
    (volume.mount_point / "store").mkdir()
    run("mount", "--bind", volume.mount_point / "store", STORE)
    try:
        shutil.rmtree(STATUS)
        must("start")
        check_refused(volume, errno.EDEADLK, "setup_snapshot", 0, volume.device, volume.cow, 4)
    finally:
        run("umount", STORE)
    shutil.rmtree(STATUS)
    must("start")


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


def test_transitions_ask_for_the_right_state(volume):
    for refused in (("transition_snapshot", 0, volume.cow, 4), ("transition_incremental", 0), ("destroy", 0),
                    ("reconfigure", 0, 1)):
        check_refused(volume, errno.ENOENT, *refused)
    take_snapshot(volume)
    check_refused(volume, errno.EINVAL, "transition_snapshot", 0, volume.other_cow, 4)
    must("transition_incremental", 0)
    check_refused(volume, errno.EINVAL, "transition_incremental", 0)
    check_refused(volume, errno.EEXIST, "transition_snapshot", 0, volume.cow, 4)
    check_refused(volume, errno.ENOSPC, "transition_snapshot", 0, volume.other_cow, 64)
    check_refused(volume, errno.EXDEV, "transition_snapshot", 0, "/run/.tolvu1", 4)
    unlock(volume.cow)
    volume.cow.unlink()
    check_refused(volume, errno.ENOENT, "transition_snapshot", 0, volume.other_cow, 4)


def test_transition_refuses_the_cow_file_of_another_snapshot(make_volume):
    volume, other = make_volume(), make_volume(name="other")
    track(volume)
    track(other, minor=1)
    unlock(volume.cow)
    shutil.copy(other.cow, volume.cow)
    check_refused(volume, errno.EBADMSG, "transition_snapshot", 0, volume.other_cow, 4)


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


def test_tracking_goes_on_after_a_restart(volume, tmp_path):
    """The volume is named by its UUID, as in the agent's scripts, with another minor; no change gets lost."""
    write_tree(volume, 1)
    take_snapshot(volume)
    before = keep(NODE, tmp_path / "before")
    must("transition_incremental", 0)
    write_tree(volume, 2)
    restart_machine()
    must("start")
    assert info()["devices"] == []
    assert "asleep" in tolvuctl("list").stdout

    by_uuid = pathlib.Path("/dev/disk/by-uuid", run("blkid", "-o", "value", "-s", "UUID", volume.device))
    by_uuid.parent.mkdir(parents=True, exist_ok=True)
    by_uuid.unlink(missing_ok=True)
    by_uuid.symlink_to(volume.device)
    done = tolvuctl("reload-incremental", by_uuid, "/.tolvu", 5)
    assert (done.returncode, done.stderr) == (0, "")
    assert driver_devices() == [{"minor": 5, "cow_file": "/.tolvu", "block_device": str(by_uuid),
                                 "state": TRACKING, "error": 0}]
    must("transition_snapshot", 5, volume.other_cow, 4)
    after = keep("/dev/tolvu5", tmp_path / "after")
    check_record(volume, Cow(volume.cow, volume), before, after)


def test_snapshot_comes_back_after_a_restart(volume, tmp_path):
    write_tree(volume, 1)
    take_snapshot(volume)
    before = keep(NODE, tmp_path / "before")
    restart_machine()
    write_tree(volume, 2)
    must("reload_snapshot", 0, volume.device, "/.tolvu")
    assert states() == {0: SNAPSHOT}
    after = keep(NODE, tmp_path / "after")
    below = written_below(volume, CaptureExtents(after, volume.filesystem))
    assert not set(differing_units(before, after)) - below


def test_reload_refuses_what_does_not_fit(make_volume):
    volume = make_volume()
    track(volume)
    check_refused(volume, errno.EBUSY, "reload_incremental", 0, volume.device, "/.tolvu")
    check_refused(volume, errno.EBUSY, "reload_incremental", 1, volume.device, "/.tolvu")
    restart_machine()
    must("start")
    check_refused(volume, errno.ENOENT, "reload_snapshot", 0, volume.device, "/.tolvu")
    check_refused(volume, errno.ENOENT, "reload_incremental", 0, volume.device, "/.tolvu1")
    check_refused(volume, errno.EBADMSG, "reload_incremental", 0, volume.device, "/lost+found")
    check_refused(volume, errno.EINVAL, "reload_incremental", 256, volume.device, "/.tolvu")
    unlock(volume.cow)
    volume.cow.write_bytes(b"\0" * 4096)
    check_refused(volume, errno.EBADMSG, "reload_incremental", 0, volume.device, "/.tolvu")


def test_new_setup_ends_what_is_asleep(volume):
    """A sleeping device of the same volume ends: nobody could give it back any more."""
    track(volume)
    restart_machine()
    take_snapshot(volume)
    volume.place.expect(shown=1, kept=1)
    assert "asleep" not in tolvuctl("list").stdout


def test_cleanup_forgets_what_is_asleep(volume):
    track(volume)
    restart_machine()
    must("start")
    volume.place.expect(shown=0, kept=1)
    assert tolvuctl("cleanup").returncode == 0
    volume.place.expect(shown=0, kept=0)


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


BROKEN_STATES = ["", "{", "null", "[]", "\xff\xfe", "[" * 100_000, "{\"format\": 2}",
                 "{\"format\": 1, \"session\": \"../../etc\", \"devices\": [], \"asleep\": []}"]


def test_broken_state_loses_the_devices_only(volume):
    """The driver starts without devices, and removes from the machine what it doesn't know any more."""
    for text in BROKEN_STATES:
        take_snapshot(volume)
        (STORE / "state.json").write_text(text, encoding="latin-1")
        must("start")
        assert (info()["devices"], nodes()) == ([], []), text[:80]
        volume.place.expect(shown=0, kept=0)


@captures
def test_device_without_its_capture_is_gone(volume):
    track(volume)
    [capture] = stored()
    (STORE / capture).unlink()
    must("start")
    assert info()["devices"] == []


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
