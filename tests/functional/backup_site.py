"""The common part of the tests of whole backups: small volumes that can be snapshotted, changes of them, and
a calculation, independent of the agent, of what a backup has to send."""
import dataclasses
import hashlib
import math
import pathlib
import random
import shutil

import pytest

import snapshot_site
from change_records import CaptureExtents, common, extents_of_units, marked_units
from iscsi_call import LONGEST_WRITE
from lab import driver
from lab.backups import capture_of
from lab.daemon import SCRIPTS
from lab.logical_disk import are_volumes_logical
from lab.targets import Target
from lab.zephane import ZephaneServer

LONGEST = 4 << 20 # upper limit of a single read or write
LONGEST_COMMAND = {Target.interface: LONGEST_WRITE, ZephaneServer.interface: LONGEST}
OVER_BOTH = pytest.mark.parametrize("target", [Target, ZephaneServer], indirect=True,
                                    ids=["iscsi", "zephane"])
EXT4 = dataclasses.replace(snapshot_site.EXT4, mebibytes=320)
# Without this, XFS preallocates blocks after the ends of files, which count as used but were never written.
XFS = dataclasses.replace(snapshot_site.XFS, mebibytes=352, options="allocsize=4k")
# The script deletes itself when it first runs, so that the backup fails between its snapshots and its first
# write.
VANISHING = f"#!/bin/sh\nrm {SCRIPTS}/vanishing\n"


def fill(root, seed, files=40, largest=300_000):
    """Creates files of all sizes, in directories; the same files for the same seed."""
    source = random.Random(seed)
    root = pathlib.Path(root)
    for number in range(files):
        path = root / f"{seed}-{number % 7}" / f"file {number}"
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(source.randbytes(source.randrange(largest)))


def fill_some(volumes, names, seed):
    for name in names:
        fill(root_of(volumes[name]), f"{seed} {name}", files=15)


def check(protection, backup, kind):
    """Checks that the backup has succeeded as this type, and that the images are right."""
    assert backup.state == "finished", backup.log
    assert {backup.type(name) for name in protection.partitions} == {kind}, backup.log
    protection.verify()


def check_chain(protection, volumes):
    """Runs FULL, DIFFERENTIAL MERGE and INCREMENTAL backups, with changes in between."""
    for seed, kind, asked in (("a", "full", {"full": True}), ("b", "differential", {"merge": True}),
                              ("c", "incremental", {})):
        fill_some(volumes, protection.partitions, seed)
        check(protection, protection.run(**asked), kind)


def check_refused(protection, **changes):
    """Checks that a request with these changes fails before there is a snapshot and writes nothing, and that
    the next backup isn't affected. There has been a backup before. Returns the log."""
    before = protection.target.writes()
    backup = protection.run(volumes=protection.request(**changes))
    assert backup.state == "failed", backup.log
    assert (backup.status["connection_error"], backup.status["snapshot_error"]) == (True, False)
    assert protection.target.writes() == before
    assert "Start Snapshotting" not in backup.log
    assert {device_of(partition)["state"] for partition in protection.partitions.values()} == {2}
    return backup.log


def digest(path):
    return hashlib.sha256(pathlib.Path(path).read_bytes()).hexdigest()


def root_of(partition):
    """The volume's mount point."""
    return pathlib.Path(partition.volume.mount_point)


def empty(root):
    """Removes everything below a mount point."""
    for path in root.iterdir():
        if path.is_dir() and not path.is_symlink():
            shutil.rmtree(path)
        else:
            path.unlink()


def write_script(name, text):
    """Writes a pre/post script that requests can name; it runs before and after the snapshots."""
    path = SCRIPTS / name
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text, encoding="utf-8")
    path.chmod(0o700)
    return path


def closed_file(partition):
    """The name of the CoW file that was closed when the last snapshot was taken."""
    return ".tolvu" if device_of(partition)["cow_file"] == "/.tolvu1" else ".tolvu1"


def device_of(partition):
    """The driver's status of a volume's device."""
    return next(device for device in driver.devices() if device["block_device"] == partition.device)


def size_of_all(extents):
    return sum(length for _, length in extents)


def commands_for(extents, target):
    """The number of commands that sending the extents takes."""
    return sum(math.ceil(length / LONGEST_COMMAND[target.interface]) for _, length in extents)


class Sent:
    """The data that a backup has sent of a volume, and the data that it had to send. `exact` is
    false if the driver tracks writes: a write may not have changed the data."""

    def __init__(self, target, reported_bytes, writes, extents, exact):
        self.target = target
        self.reported_bytes = reported_bytes
        self.writes = writes
        self.extents = extents
        self.exact = exact

    def check(self):
        size = size_of_all(self.extents)
        if self.exact:
            commands = commands_for(self.extents, self.target)
            assert (self.reported_bytes, self.writes.commands) == (size, commands)
        assert self.reported_bytes == self.writes.bytes >= size
        return self


class Ledger:
    """Runs backups of all volumes of a protection, which must succeed; checks the images, and returns what
    was sent. Keeps the driver's captures, and an analysis of them, from one backup to the next."""

    def __init__(self, protection):
        self.protection = protection
        self._captures = {}

    def run(self, expected, **kind):
        """Runs a backup; `expected` is the type that it must become."""
        protection = self.protection
        before = {name: image.writes() for name, image in protection.images.items()}
        backup = protection.run(**kind)
        assert backup.state == "finished", backup.log
        types = {backup.type(name) for name in protection.partitions}
        assert types == {expected}, backup.log
        protection.verify()
        exact = expected != "incremental" or not are_volumes_logical()
        return {name: Sent(protection.target, backup.bytes(name),
                           protection.images[name].writes() - before[name],
                           self._expected_extents(name, expected), exact)
                for name in protection.partitions}

    def _expected_extents(self, name, kind):
        """The extents worth copying; for an incremental backup, only those that have changed."""
        partition = self.protection.partitions[name]
        path = capture_of(partition)
        now = CaptureExtents(path, partition.volume.file_system)
        file = open(path, "rb")
        now.capture = f"/proc/self/fd/{file.fileno()}" # its name is removed by the next backup
        earlier, self._captures[name] = self._captures.get(name), (now, file)
        if not earlier:
            return now.copied
        before, earlier_file = earlier
        with earlier_file:
            if kind != "incremental":
                return now.copied
            units = marked_units(before, now, closed_file(partition))
        return common(now.copied, extents_of_units(units))

    def __enter__(self):
        return self

    def __exit__(self, *_exception):
        for _, file in self._captures.values():
            file.close()
