"""The stand-in snapshot driver after restarts of the machine, and with a broken state."""
import errno
import pathlib

import pytest

from change_records import CaptureExtents, differing_units
from lab.commands import run
from lab.driver import STORE, info, nodes
from snapshot_site import copy_snapshot
from tolvubd_checks import (NODE, check_record, check_refused, driver_devices, restart_machine, take_snapshot,
                            track, write_tree, written_below)
from tolvubd_site import SNAPSHOT, TRACKING, Cow, must, states, stored, tolvuctl, unlock

captures = pytest.mark.captures


@pytest.fixture
def volume(make_volume):
    return make_volume()


def test_tracking_goes_on_after_a_restart(volume, tmp_path):
    """The volume is named by its UUID, as in the agent's scripts, with another minor; no change gets lost."""
    write_tree(volume, 1)
    take_snapshot(volume)
    before = copy_snapshot(NODE, tmp_path / "before")
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
    after = copy_snapshot("/dev/tolvu5", tmp_path / "after")
    check_record(volume, Cow(volume.cow, volume), before, after)


def test_snapshot_comes_back_after_a_restart(volume, tmp_path):
    write_tree(volume, 1)
    take_snapshot(volume)
    before = copy_snapshot(NODE, tmp_path / "before")
    restart_machine()
    write_tree(volume, 2)
    must("reload_snapshot", 0, volume.device, "/.tolvu")
    assert states() == {0: SNAPSHOT}
    after = copy_snapshot(NODE, tmp_path / "after")
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
    """A sleeping device of the same volume ends, because no reload could give it back any more."""
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


BROKEN_STATES = ["", "{", "null", "[]", "\xff\xfe", "[" * 100_000, "{\"format\": 2}",
                 "{\"format\": 1, \"session\": \"../../etc\", \"devices\": [], \"asleep\": []}"]


def test_broken_state_loses_the_devices_only(volume):
    """The driver starts without devices, and removes everything from the machine that it doesn't know any
    more."""
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
