"""Whole backups over the second transport, of FUSE volumes."""
from backup_site import check_chain
from lab.volumes import Volume
from lab.zephane import ZephaneServer

SERVER = ZephaneServer
VOLUMES = (
    Volume("windows", "ntfs", mebibytes=400, mount_point="/mnt/windows"),
    Volume("stick", "vfat", mebibytes=400, mount_point="/mnt/stick", making=("-s", "2")),
)


def test_all_types(protect, volumes):
    protection = protect()
    check_chain(protection, volumes)
    assert all(image.writes().bytes > 0 for image in protection.images.values())
