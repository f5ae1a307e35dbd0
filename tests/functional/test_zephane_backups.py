"""Whole backups over the second transport, of volumes that the kernel mounts."""
import dataclasses

import pytest

from backup_site import EXT4, XFS, Ledger, check_chain, fill_some
from lab.zephane import ZephaneServer

SERVER = ZephaneServer
VOLUMES = (
    EXT4,
    XFS,
    dataclasses.replace(EXT4, name="older", file_system="ext3", mount_point="/mnt/older"),
)


@pytest.mark.parametrize("name", [volume.name for volume in VOLUMES])
def test_all_types(protect, volumes, name):
    check_chain(protect(name), volumes)


def test_what_is_due_reaches_the_engine_and_nothing_else(protect, volumes):
    """Each command is a chunk of a volume, and there are as few commands as possible."""
    names = ("data", "files")
    with Ledger(protect(*names)) as ledger:
        for kind, asked in (("full", {"full": True}), ("incremental", {}), ("incremental", {})):
            fill_some(volumes, names, f"{kind} {asked}")
            assert all(sent.check() for sent in ledger.run(kind, **asked).values())


def test_three_volumes_in_one_backup(protect, volumes):
    """One agent has several connections at once, each to an engine of its own."""
    check_chain(protect(), volumes)
