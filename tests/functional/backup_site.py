"""What the tests of whole backups share: volumes that are small and can be snapshotted, changes of them, and
what has to be sent of them, worked out without the agent."""
import dataclasses
import hashlib
import math
import pathlib
import random
import shutil

import pytest

import snapshot_site
from change_records import Moment, common, extents_of_units, marked_units
from iscsi_call import LONGEST_WRITE
from lab import driver
from lab.backups import capture_of
from lab.daemon import SCRIPTS
from lab.logical_disk import are_volumes_logical
from lab.targets import Target
from lab.zephane import ZephaneServer

LONGEST = 4 << 20 # nothing longer is read or sent at once
LONGEST_COMMAND = {Target.interface: LONGEST_WRITE, ZephaneServer.interface: LONGEST}
OVER_BOTH = pytest.mark.parametrize("target", [Target, ZephaneServer], indirect=True,
                                    ids=["iscsi", "zephane"])
EXT4 = dataclasses.replace(snapshot_site.EXT4, mebibytes=320)
# Or XFS sets blocks aside behind the ends of files, which are then in use and were never written.
XFS = dataclasses.replace(snapshot_site.XFS, mebibytes=352, options="allocsize=4k")
# It is gone when it is asked for again, so that the backup fails between its snapshots and its first write.
VANISHING = f"#!/bin/sh\nrm {SCRIPTS}/vanishing\n"


def fill(root, seed, files=40, largest=300_000):
    """Files of all sizes, in directories, the same ones for a seed."""
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
    """The backup has become one of this kind, and the images are right."""
    assert backup.state == "finished", backup.log
    assert {backup.type(name) for name in protection.partitions} == {kind}, backup.log
    protection.verify()


def check_chain(protection, volumes):
    """FULL, DIFFERENTIAL MERGE and INCREMENTAL, with changes between."""
    for seed, kind, asked in (("a", "full", {"full": True}), ("b", "differential", {"merge": True}),
                              ("c", "incremental", {})):
        fill_some(volumes, protection.partitions, seed)
        check(protection, protection.run(**asked), kind)


def check_refused(protection, **changes):
    """A request with these changes fails before there is a snapshot, writes nothing, and costs nothing: there
    has been a backup before. Returns what was logged."""
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
    """Where the volume is mounted."""
    return pathlib.Path(partition.volume.mount_point)


def empty(root):
    """Removes all that is below a mount point."""
    for path in root.iterdir():
        if path.is_dir() and not path.is_symlink():
            shutil.rmtree(path)
        else:
            path.unlink()


def write_script(name, text):
    """A script for requests to name, which runs around the snapshots."""
    path = SCRIPTS / name
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text, encoding="utf-8")
    path.chmod(0o700)
    return path


def closed_file(partition):
    """The name of the CoW file that the last snapshot has closed."""
    return ".tolvu" if device_of(partition)["cow_file"] == "/.tolvu1" else ".tolvu1"


def device_of(partition):
    """What the driver says of a volume's device."""
    return next(device for device in driver.devices() if device["block_device"] == partition.device)


def size_of_all(extents):
    return sum(length for _, length in extents)


def commands_for(extents, target):
    """How many commands it takes to send them."""
    return sum(math.ceil(length / LONGEST_COMMAND[target.interface]) for _, length in extents)


class Sent:
    """What a backup has sent of a volume, and what it had to send. It is `exact` unless changes are known by
    what was written, which may be what was there before."""

    def __init__(self, target, reported, writes, extents, exact):
        self.target = target
        self.reported = reported
        self.writes = writes
        self.extents = extents
        self.exact = exact

    def check(self):
        size = size_of_all(self.extents)
        if self.exact:
            assert (self.reported, self.writes.commands) == (size, commands_for(self.extents, self.target))
        assert self.reported == self.writes.bytes >= size
        return self


class Ledger:
    """Runs backups of all volumes of a protection that have to succeed, checks the images, and tells what
    was sent. Keeps the driver's captures, and what they show, from one backup to the next."""

    def __init__(self, protection):
        self.protection = protection
        self._moments = {}

    def run(self, expected, **kind):
        """`expected` is the type that the backup has to become."""
        protection = self.protection
        before = {name: image.writes() for name, image in protection.images.items()}
        backup = protection.run(**kind)
        assert backup.state == "finished", backup.log
        types = {backup.type(name) for name in protection.partitions}
        assert types == {expected}, backup.log
        protection.verify()
        exact = expected != "incremental" or not are_volumes_logical()
        return {name: Sent(protection.target, backup.bytes(name),
                           protection.images[name].writes() - before[name], self._due(name, expected), exact)
                for name in protection.partitions}

    def _due(self, name, kind):
        """All that is worth copying; of an incremental what has changed of it."""
        partition = self.protection.partitions[name]
        path = capture_of(partition)
        now = Moment(path, partition.volume.file_system)
        file = open(path, "rb")
        now.capture = f"/proc/self/fd/{file.fileno()}" # its name goes with the next backup
        earlier, self._moments[name] = self._moments.get(name), (now, file)
        if not earlier:
            return now.copied
        moment, earlier_file = earlier
        with earlier_file:
            if kind != "incremental":
                return now.copied
            units = marked_units(moment, now, closed_file(partition))
        return common(now.copied, extents_of_units(units))

    def __enter__(self):
        return self

    def __exit__(self, *_exception):
        for _, file in self._moments.values():
            file.close()
