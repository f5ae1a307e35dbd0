"""Whole backups of volumes where free blocks come into use without a change of their content."""
import contextlib
import dataclasses
import os
import subprocess

import pytest

from backup_site import EXT4, XFS, fill
from lab.backups import Protection
from lab.site import Site
from lab.targets import Target

MIB = 1 << 20
# With room for more than two CoW files.
VOLUMES = tuple(dataclasses.replace(volume, mebibytes=384) for volume in (EXT4, XFS))


@pytest.fixture
def protection(agent, appliance):
    with Site(VOLUMES) as site, Target() as target:
        for partition in site.disk:
            fill(partition.volume.mount_point, partition.name)
        yield Protection(appliance, agent, target, site.disk)


def write_zeros(path, mebibytes):
    """Writes zeros piece by piece, with a sync after each, which makes XFS reserve more and more room after
    the end of the file. The file stays open, so that XFS keeps that room."""
    file = open(path, "wb", buffering=0)
    for _ in range(mebibytes):
        file.write(bytes(MIB))
        os.fsync(file.fileno())
    return file


def test_incremental_brings_what_came_into_use(protection):
    """The FULL left out the free blocks, so the image still holds its old content there."""
    backup = protection.run(full=True)
    assert backup.state == "finished", backup.log
    with contextlib.ExitStack() as open_files:
        for volume in VOLUMES:
            root = volume.mount_point
            open_files.enter_context(write_zeros(f"{root}/zeros", 8))
            subprocess.run(["fallocate", "--length", "8MiB", f"{root}/reserved"], check=True)
        backup = protection.run()
    assert backup.state == "finished", backup.log
    assert {backup.type(volume.name) for volume in VOLUMES} == {"incremental"}, backup.log
    protection.verify()
