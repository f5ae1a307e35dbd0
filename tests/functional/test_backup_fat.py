"""Whole backups of FAT32, which is mounted with a FUSE driver."""
import pytest

from backup_site import fill, root_of, size_of_all
from lab.backups import capture_of, size_of
from lab.filesystems import truth_of
from lab.volumes import Volume

NAME = "stick"
# The FUSE driver reports blocks of 1 KiB, whatever the cluster size.
VOLUMES = (Volume(NAME, "vfat", mebibytes=400, mount_point="/mnt/stick", making=("-s", "2")),)


@pytest.fixture
def stick(volumes):
    fill(root_of(volumes[NAME]), "first")
    return volumes[NAME]


def check(protection, kind, **asked):
    backup = protection.run(**asked)
    assert backup.state == "finished", backup.log
    assert backup.type(NAME) == kind, backup.log
    protection.verify()
    return backup


def bytes_to_copy(stick):
    """The bytes in use, including the driver's own files, as the FUSE driver can't report their extents; plus
    the space after the file system, which ends at a track boundary."""
    truth = truth_of(capture_of(stick), "vfat")
    return size_of_all(truth.used_extents()) + size_of(stick) - truth.blocks * truth.block_size


def test_all_types(protect, stick):
    protection = protect()
    backup = check(protection, "full", full=True)
    assert "error occurred" not in backup.log
    assert backup.bytes(NAME) == bytes_to_copy(stick)
    fill(root_of(stick), "second", files=10)
    assert check(protection, "incremental").bytes(NAME) <= bytes_to_copy(stick)
    fill(root_of(stick), "third", files=10)
    assert check(protection, "differential", merge=True).bytes(NAME) == bytes_to_copy(stick)
    fill(root_of(stick), "fourth", files=10)
    check(protection, "incremental")
