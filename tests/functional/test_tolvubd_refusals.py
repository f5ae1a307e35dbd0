"""Calls that the stand-in snapshot driver refuses, and nothing is changed by them."""
import contextlib
import errno
import shutil
import subprocess
import threading

import pytest

from lab import driver
from lab.commands import run
from lab.driver import STATUS, STORE
from tolvubd_checks import check_refused, take_snapshot, track
from tolvubd_site import call, cow_files, must, unlock

captures = pytest.mark.captures


@pytest.fixture
def volume(make_volume):
    return make_volume()


def test_check_tells_a_snapshot_from_everything_else(volume):
    check_refused(volume, errno.ENOENT, "check_snapshot", 0)
    take_snapshot(volume)
    must("check_snapshot", 0)
    must("transition_incremental", 0)
    check_refused(volume, errno.EINVAL, "check_snapshot", 0)


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
    """The call fails at once, even if old files have to be removed first."""
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
