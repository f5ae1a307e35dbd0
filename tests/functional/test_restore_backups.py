"""FUSE volumes, backed up by the agent and written back by bek-restore."""
import pytest

from backup_site import check, fill_some, root_of
from lab import images
from lab.image_server import address_of
from lab.volumes import Volume
from restore_site import restore

VOLUMES = (Volume("windows", "ntfs", mebibytes=300, mount_point="/mnt/windows"),
           Volume("NO NAME", "vfat", mebibytes=300, mount_point="/mnt/stick", making=("-s", "2")))


@pytest.mark.parametrize("name", ["windows", "NO NAME"])
def test_volume_of_a_backup(protect, volumes, name, directory):
    """Backed up in full, changed, and backed up again; then written to a new file, where each file is the
    same."""
    fill_some(volumes, [name], "a")
    protection = protect(name)
    check(protection, protection.run(full=True), "full")
    fill_some(volumes, [name], "b")
    check(protection, protection.run(), "incremental")
    expected = images.tree_hashes(root_of(volumes[name]))
    target = directory / "new"
    target.touch()
    restore("write", address_of(protection.images[name])[0], target)
    file_system = volumes[name].volume.file_system
    images.fsck(target, file_system)
    with images.mounted(target, file_system) as root:
        assert images.tree_hashes(root) == expected
