"""Sessions of snapshots that are killed at each step: the next ones recover."""
import re

import pytest

from lab.snapshots import SessionError
from lab.syscalls import MOUNT_CALLS
from snapshot_site import EXT4, SnapshotSite, fill_tree, recover


@pytest.fixture
def small_site(site):
    """A site with only one volume, for operations that are done many times."""
    with SnapshotSite((EXT4,)) as made:
        fill_tree(made.mount_point("data"), seed=1)
        yield made


SYSTEM_CALLS = ("ioctl", "rename", "mount", "fsconfig", "move_mount", "umount2", "mknodat", "unlink",
                "unlinkat", "fallocate", "fsync", "fdatasync", "ftruncate", "mkdir", "chmod", "rmdir", "sync",
                "pwrite64", "flock")
MOST_KILLS = 5 # for each kind of call
TRACE = f"trace=?{',?'.join(SYSTEM_CALLS)}"


def count_calls(site, path, incremental):
    """The number of calls that a session makes of each system call."""
    with site.session(incremental=incremental) as session:
        session.trace("-e", TRACE, output=path)
        session.start()
        session.end("success")
    names = re.findall(r"^\d+ +(\w+)\(", path.read_text(), re.MULTILINE)
    return {name: names.count(name) for name in SYSTEM_CALLS if name in names}


def moments(total):
    """Some of the numbers from 1 to `total`, including the first and the last."""
    if total <= MOST_KILLS:
        return list(range(1, total + 1))
    return sorted({1 + number * (total - 1) // (MOST_KILLS - 1) for number in range(MOST_KILLS)})


@pytest.mark.parametrize("is_first", [True, False])
def test_killed_at_each_step(small_site, tmp_path, is_first):
    """kill -9 before any of the important system calls of a session: the volume is writable again within a
    second, at most one of the next sessions fails, and nothing is left behind."""
    if not is_first:
        small_site.run_session(incremental=False)
    counts = count_calls(small_site, tmp_path / "calls", incremental=not is_first)
    assert {"ioctl", "rename", "umount2"} <= set(counts)
    assert set(MOUNT_CALLS.split(",")) & set(counts)
    for name, total in counts.items():
        for number in moments(total):
            if is_first:
                small_site.forget_snapshots()
            kill_session(small_site, f"inject={name}:signal=KILL:when={number}", incremental=not is_first)
            small_site.check_writable("data")
            ended = recover(small_site, incremental=not is_first)
            assert ended["data"]["incrementalPreserved"] is True, (name, number)
            small_site.check_clean()
            assert small_site.own_files("data") in ([".tolvu", ".tolvu.inc"], [".tolvu.inc", ".tolvu1"])


def kill_session(site, injection, incremental):
    """Runs a session that is killed at a system call."""
    with site.session(incremental=incremental) as session:
        session.trace("-e", TRACE, "-e", injection)
        for command in ("start", "end success"):
            try:
                if session.run(command) is None:
                    break
            except SessionError:
                break # the driver's helper was killed: an ordinary failure
