"""Comparing over the second transport: equal data isn't sent."""
import dataclasses
import os

import pytest

from backup_site import EXT4, XFS, fill, root_of, size_of_all
from change_records import copied_extents
from lab.backups import capture_of
from lab.zephane import ZephaneServer
from zephane_site import watched_wire

MIB = 1 << 20
SERVER = ZephaneServer
VOLUMES = tuple(dataclasses.replace(volume, mebibytes=480) for volume in (EXT4, XFS))
LARGE = 96 * MIB


def used_bytes(partition):
    return size_of_all(copied_extents(capture_of(partition), partition.volume.file_system))


@pytest.mark.parametrize("name", [volume.name for volume in VOLUMES])
def test_merge_of_an_equal_image_sends_next_to_nothing(protect, volumes, name):
    """Incompressible data is sent once; the second time, only its digests are."""
    partition = volumes[name]
    fill(root_of(partition), name)
    (root_of(partition) / "large").write_bytes(os.urandom(LARGE))
    protection = protect(name)
    with watched_wire() as wire:
        full = protection.run(full=True)
        assert full.state == "finished", full.log
        assert wire.sent() > LARGE
    with watched_wire() as wire:
        merge = protection.run(merge=True)
        assert (merge.state, merge.type(name)) == ("finished", "differential"), merge.log
        assert merge.bytes(name) == used_bytes(partition) > LARGE
        assert wire.sent() < used_bytes(partition) / 100
    protection.verify()


def test_what_compresses_is_compressed(protect, volumes):
    """Both directions are compressed: written data, and the beginning of the image that is read back."""
    root = root_of(volumes["data"])
    (root / "large").write_bytes(b"all work and no play " * (LARGE // 21))
    protection = protect("data")
    with watched_wire() as wire:
        backup = protection.run(full=True)
        assert backup.state == "finished", backup.log
        assert wire.sent() < backup.bytes("data") / 10
        assert wire.answered() < 4 * MIB
    protection.verify()
