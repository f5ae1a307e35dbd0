"""Whole backups of volumes where free blocks come into use without a change of what they hold."""
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
# With room for two CoW files and more.
VOLUMES = tuple(dataclasses.replace(volume, mebibytes=384) for volume in (EXT4, XFS))


@pytest.fixture
def protection(agent, appliance):
    with Site(VOLUMES) as site, Target() as target:
        for partition in site.disk:
            fill(partition.volume.mount_point, partition.name)
        yield Protection(appliance, agent, target, site.disk)


def write_zeros(path, mebibytes):
    """Each piece is written out before the next, which has XFS reserve ever more room behind the end. The
    file stays open, for that room to stay."""
    file = open(path, "wb", buffering=0)
    for _ in range(mebibytes):
        file.write(bytes(MIB))
        os.fsync(file.fileno())
    return file


def test_incremental_brings_what_came_into_use(protection):
    """The FULL has left out the free blocks, and the image holds there what it held before."""
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
