"""If a process is killed at any step of a function of the driver, the volume stays writable, and the next
record is right."""
import collections
import pathlib
import re
import signal

import pytest

from dm_site import COW_MEBIBYTES, Protected, logical_volumes
from lab.lvm import VolumeGroup
from snapshot_site import check_writable
from tolvubd_site import SNAPSHOT, TRACKING, Volume, call, must, states, tolvuctl

TRACE = pathlib.Path("/tmp/tolvubd.trace")
SECTORS = 128 * 2048
CALLS = ("ioctl", "pwrite64", "fsync", "rename", "unlink", "fallocate", "mknodat", "exit_group")
# Calls that change nothing.
QUESTIONS = re.compile(r"DM_(VERSION|DEV_STATUS|TABLE_STATUS|TABLE_DEPS|LIST_\w+)|FS_IOC_FIEMAP|BLKGETSIZE")
STEPS = 3 # of each function, evenly spread


class Operation:
    """A function of the driver, and the state in which it is called."""

    def __init__(self, function, before, run):
        self.function = function
        self.before = before
        self.run = run


def set_up(protected, wrapper):
    volume = protected.volume
    return call("setup_snapshot", 0, volume.device, volume.cow, COW_MEBIBYTES, wrapper=wrapper)


OPERATIONS = {operation.function: operation for operation in (
    Operation("setup_snapshot", None, set_up),
    Operation("transition_incremental", SNAPSHOT,
              lambda protected, wrapper: call("transition_incremental", 0, wrapper=wrapper)),
    Operation("transition_snapshot", TRACKING, Protected.take_next),
    Operation("destroy", SNAPSHOT, lambda protected, wrapper: call("destroy", 0, wrapper=wrapper)))}


@pytest.fixture(scope="module")
def volume():
    with VolumeGroup() as group, Volume("data", "ext4", SECTORS, logical_volumes(group)) as made:
        yield made


def bring_to(protected, state):
    """Brings the device into a state, whatever state it is in now."""
    now = states().get(0)
    if state is None and now is not None:
        assert tolvuctl("destroy", 0).returncode == 0
    elif state is not None and now is None:
        protected.start()
        bring_to(protected, state)
    elif (now, state) == (SNAPSHOT, TRACKING):
        protected.track()
    elif (now, state) == (TRACKING, SNAPSHOT):
        assert protected.next_record() == "set right"


def steps_of(operation, protected):
    """(name, number) of each call by which the operation changes something."""
    bring_to(protected, operation.before)
    assert operation.run(protected, ["strace", "-o", TRACE, "-e", f"trace={','.join(CALLS)}"])
    if operation.function == "transition_snapshot":
        protected.check_record()
    counts = collections.Counter()
    found = []
    for line in TRACE.read_text(encoding="utf-8", errors="replace").splitlines():
        name = re.match(r"\w*", line)[0]
        counts[name] += 1
        if name in CALLS and not QUESTIONS.search(line):
            found.append((name, counts[name]))
    assert len(found) > 10
    return found


def check_after_kill(operation, protected, where):
    """Checks that the device is in the state before or after the operation, and that its picture and next
    record are right. A device that was being destroyed may also be untrusted."""
    check_writable(protected.volume.mount_point)
    must("start")
    if states().get(0) is None:
        assert operation.function in ("setup_snapshot", "destroy"), where
        protected.start()
    elif operation.function == "setup_snapshot":
        protected.begin()
    elif (operation.function, states()[0]) == ("transition_snapshot", SNAPSHOT):
        protected.check_record()
    outcome = protected.outcome()
    assert "full comparison" not in outcome or operation.function == "destroy", f"{where}: {outcome}"
    protected.writer.wait_for_writes()


@pytest.mark.parametrize("name", OPERATIONS)
def test_kill_at_each_step(volume, name):
    operation = OPERATIONS[name]
    with Protected(volume) as protected:
        steps = steps_of(operation, protected)
        chosen = steps[::len(steps) // STEPS]
        print(f"{name}: {len(chosen)} of {len(steps)} steps")
        for call_name, number in chosen:
            bring_to(protected, operation.before)
            where = f"{call_name} {number}"
            done = operation.run(protected, ["strace", "-o", TRACE, "-e", f"trace={call_name}", "-e",
                                             f"inject={call_name}:signal=KILL:when={number}"])
            assert done.signal == signal.SIGKILL, where
            check_after_kill(operation, protected, where)
        protected.end()
