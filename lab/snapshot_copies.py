"""Copies of what volumes held when their snapshots were taken, for a driver that keeps no such copies itself.

A quiesce script copies each snapshot as soon as it exists, before the agent reads a block of it.
"""
import contextlib
import os
import pathlib
import shlex
import stat
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT))

from lab import driver # noqa: E402
from lab.commands import run # noqa: E402
from lab.daemon import SCRIPTS # noqa: E402

COPIES = pathlib.Path("/tmp/snapshot-copies")
SCRIPT = "copy-snapshots"
SNAPSHOT = 3 # the state of a device that shows a snapshot
SECONDS = 600


def snapshot_copy_of(partition):
    """The file with the content of the volume at its last snapshot."""
    return next(COPIES / f"{device['minor']}.img" for device in driver.devices()
                if device["block_device"] == partition.device)


def install():
    """Writes the script; returns its name and timeout, for the backup request."""
    SCRIPTS.mkdir(parents=True, exist_ok=True)
    path = SCRIPTS / SCRIPT
    command = shlex.join([sys.executable, "-B", __file__])
    path.write_text(f'#!/bin/sh\nexec {command} "$1"\n', encoding="utf-8")
    path.chmod(0o700)
    return SCRIPT, SECONDS


def copy_snapshots():
    """Copies each snapshot to a new file. A reader that has the previous file open can still read it."""
    COPIES.mkdir(exist_ok=True)
    for device in driver.devices():
        if device["state"] == SNAPSHOT:
            path = COPIES / f"{device['minor']}.img"
            path.unlink(missing_ok=True)
            number = os.stat(f"/dev/tolvu{device['minor']}").st_rdev
            check_kind(number)
            with own_node(number) as node:
                run("cp", "--sparse=always", node, path)


@contextlib.contextmanager
def own_node(number):
    """Another node for a device: a test that disturbs reads from the driver's own node aims at the agent."""
    path = COPIES / "node"
    path.unlink(missing_ok=True) # left by a copy that was killed
    os.mknod(path, stat.S_IFBLK | 0o600, number)
    try:
        yield path
    finally:
        path.unlink()


def check_kind(number):
    """Exits if the snapshot isn't device-mapper's: then no copy is made, and the test fails."""
    table = run("dmsetup", "table", "--major", os.major(number), "--minor", os.minor(number))
    if " snapshot " not in table:
        sys.exit("the snapshot is none of device-mapper's")


if __name__ == "__main__":
    if sys.argv[1:] == ["POST"]:
        copy_snapshots()
