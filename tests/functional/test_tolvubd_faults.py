"""The stand-in snapshot driver when its process is killed, or its system calls fail, at every step."""
import collections
import contextlib
import errno
import os
import pathlib
import re
import shutil
import signal
import subprocess
import time

import pytest

from lab.daemon import program
from lab.driver import STATUS, forget_devices, nodes, stored_state
from snapshot_site import check_writable
from tolvubd_site import (SNAPSHOT, TRACKING, Volume, call, cow_files, expect_loops, must,
                          started_driver, states, stored, tolvuctl, unlock)

captures = pytest.mark.captures
TRACE = pathlib.Path("/tmp/tolvubd.trace")
SECTORS = 16 * 2048

# The system calls of an operation once it has the lock, and the errors that they may return.
FAULTS = {
    "openat": "EMFILE", "newfstatat": "ENOMEM", "pread64": "ENOMEM", "pwrite64": "ENOSPC", "fsync": "EIO",
    "rename": "EIO", "renameat2": "EIO", "unlink": "EIO", "ftruncate": "EIO", "fallocate": "ENOSPC",
    "fchmod": "EPERM", "ioctl": "ENOMEM", "mknodat": "ENOSPC", "socketpair": "EMFILE", "clone": "EAGAIN",
    "sendto": "EPIPE", "wait4": "ECHILD", "lseek": "EIO", "statfs": "EIO", "getdents64": "EIO",
    "flock": "ENOLCK"}
# The calls to kill a process at: before each call that changes something, or that takes long.
KILLS = ("pwrite64", "fsync", "rename", "renameat2", "unlink", "ftruncate", "fallocate", "ioctl", "mknodat",
         "socketpair", "clone", "sendto", "wait4", "exit_group")


def restart_machine():
    shutil.rmtree(STATUS)


def track(volume):
    must("setup_snapshot", 0, volume.device, volume.cow, 1)
    must("transition_incremental", 0)


class Operation:
    """One call, its preconditions, and the state of the device before and after it; None means no device."""

    def __init__(self, function, prepare, before, after, *arguments):
        self.function = function
        self.prepare = prepare
        self.before = before
        self.after = after
        self._arguments = arguments

    def run(self, volume, wrapper=()):
        values = [value(volume) if callable(value) else value for value in self._arguments]
        return call(self.function, *values, wrapper=wrapper)


def take_snapshot(volume):
    must("setup_snapshot", 0, volume.device, volume.cow, 1)


def track_and_restart(volume):
    track(volume)
    restart_machine()


def snapshot_and_restart(volume):
    take_snapshot(volume)
    restart_machine()


OPERATIONS = {operation.function: operation for operation in (
    Operation("setup_snapshot", lambda volume: None, None, SNAPSHOT,
              0, lambda v: v.device, lambda v: v.cow, 1),
    Operation("transition_incremental", take_snapshot, SNAPSHOT, TRACKING, 0),
    Operation("transition_snapshot", track, TRACKING, SNAPSHOT, 0, lambda v: v.other_cow, 1),
    Operation("destroy", take_snapshot, SNAPSHOT, None, 0),
    Operation("reload_snapshot", snapshot_and_restart, None, SNAPSHOT, 0, lambda v: v.device, "/.tolvu"),
    Operation("reload_incremental", track_and_restart, None, TRACKING, 0, lambda v: v.device, "/.tolvu"),
)}


@pytest.fixture
def volume(site, place):
    sectors = max(SECTORS, place.smallest_sectors)
    with Volume("volume", "ext4", sectors, place) as made, started_driver():
        yield made
        forget_everything(made)


def forget_everything(volume):
    forget_devices()
    assert tolvuctl("cleanup").returncode == 0
    for name in cow_files(volume):
        unlock(volume.mount_point / name)
        (volume.mount_point / name).unlink()


def prepare(operation, volume):
    forget_everything(volume)
    operation.prepare(volume)


def steps(operation, volume, calls):
    """(name, number) of each system call that the operation makes once it has the lock."""
    prepare(operation, volume)
    assert operation.run(volume, ["strace", "-o", TRACE, "-e", "trace=flock," + ",".join(calls)])
    counts = collections.Counter()
    found = []
    locked = False
    for line in TRACE.read_text(encoding="utf-8").splitlines():
        name = re.match(r"\w*", line)[0]
        counts[name] += 1
        locked = locked or name == "flock"
        if locked and name in calls:
            found.append((name, counts[name]))
    assert len(found) > 5
    return found


def injected(name, what):
    return ["strace", "-o", TRACE, "-e", f"trace={name}", "-e", f"inject={name}:{what}"]


def asleep():
    return stored_state()["asleep"]


def check_whole(volume, operation, where):
    """Checks that the machine matches one of the two states, with nothing left over; returns that state."""
    state = states().get(0)
    assert state in (operation.before, operation.after), where
    shown = state == SNAPSHOT
    assert nodes() == (["tolvu0"] if shown else []), where
    volume.place.expect(shown, len(states()) + len(asleep()), where)
    names = [".tolvu", *volume.place.own_files] if state is not None or asleep() else []
    if operation.function == "transition_snapshot" and state == SNAPSHOT:
        names.append(".tolvu1")
    assert cow_files(volume) == sorted(names), where
    return state


@pytest.mark.parametrize("name", OPERATIONS)
def test_kill_at_each_step(volume, name):
    """Nothing stays frozen, the next caller finds one of the two states, and nothing is left over."""
    operation = OPERATIONS[name]
    for call_name, number in steps(operation, volume, KILLS):
        prepare(operation, volume)
        where = f"{call_name} {number}"
        result = operation.run(volume, injected(call_name, f"signal=KILL:when={number}"))
        assert result.signal == signal.SIGKILL, where
        check_writable(volume.mount_point)
        must("start")
        if check_whole(volume, operation, where) == operation.before:
            assert operation.run(volume), where
            assert check_whole(volume, operation, where) == operation.after, where
        assert tolvuctl("list").returncode == 0, where


def check_failure(volume, operation, error, call_name, when):
    """Checks that the call either has failed, with the reason, and changed nothing, or has succeeded
    nevertheless. Returns whether it has failed."""
    where = f"{call_name} {when}"
    result = operation.run(volume, injected(call_name, f"error={error}:when={when}"))
    assert result.signal == 0, where
    check_writable(volume.mount_point)
    must("start")
    state = check_whole(volume, operation, where)
    if result:
        assert state == operation.after, where
        return False
    assert (result.value, state) == (-1, operation.before), where
    assert errno.errorcode[result.error] in (error, "ETIMEDOUT"), where
    return True


@captures
@pytest.mark.parametrize("name", [name for name in OPERATIONS if name != "reload_incremental"])
def test_failure_at_each_step(volume, name):
    """Each call that changes something fails once, and in another run from then on; of the other calls, every
    second one fails once. Giving back a tracked device is the same as giving back a snapshot, except for the
    loop device."""
    operation = OPERATIONS[name]
    calls = steps(operation, volume, FAULTS)
    lookups = [step for step in calls if step[0] not in KILLS]
    failed = 0
    prepare(operation, volume)
    changes = [step for step in calls if step[0] in KILLS]
    for call_name, when in [*changes, *((name, f"{number}+") for name, number in changes), *lookups[::2]]:
        if check_failure(volume, operation, FAULTS[call_name], call_name, when):
            failed += 1
        else:
            prepare(operation, volume)
    assert failed > 10


@captures
def test_volume_is_thawed_when_nothing_goes_on(volume):
    """The guard thaws the volume even while the process lives: the process may be waiting for a write to the
    frozen volume."""
    process = subprocess.Popen(
        [*injected("sendto", "delay_enter=12000000:when=1"), program("TolvubdCall"), "setup_snapshot", "0",
         str(volume.device), str(volume.cow), "1"], stdout=subprocess.PIPE, text=True)
    wait_until_frozen(volume)
    subprocess.run(["dd", "if=/dev/zero", f"of={volume.mount_point}/alive", "bs=1", "count=1", "conv=fsync"],
                   check=True, stderr=subprocess.DEVNULL)
    assert process.poll() is None
    assert process.communicate(timeout=20)[0].split() == ["-1", str(errno.ETIMEDOUT)]
    assert (states(), nodes(), stored()) == ({}, [], [])


@captures
def test_kill_of_the_process_group_thaws(volume):
    """The guard process isn't in that process group."""
    process = subprocess.Popen(
        [*injected("sendto", "delay_enter=60000000"), program("TolvubdCall"), "setup_snapshot", "0",
         str(volume.device), str(volume.cow), "1"], start_new_session=True)
    with contextlib.ExitStack() as stack:
        stack.callback(process.wait)
        stack.callback(os.killpg, process.pid, signal.SIGKILL)
        wait_until_frozen(volume)
    check_writable(volume.mount_point)
    must("start")
    assert (states(), nodes(), stored(), cow_files(volume)) == ({}, [], [], [])
    expect_loops(0)


def wait_until_frozen(volume):
    """Waits until a write blocks."""
    deadline = time.monotonic() + 20
    while time.monotonic() < deadline:
        writer = subprocess.Popen(["dd", "if=/dev/zero", f"of={volume.mount_point}/probe", "bs=1", "count=1"],
                                  stderr=subprocess.DEVNULL)
        try:
            writer.wait(0.3)
        except subprocess.TimeoutExpired:
            return
    raise AssertionError("never frozen")
