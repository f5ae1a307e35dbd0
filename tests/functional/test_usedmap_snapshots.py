"""The map of a backup's source: captures of mounted volumes in use, as the snapshot driver takes them."""
import contextlib
import os

import pytest

from lab.commands import run
from lab.volume_images import age
from lab.volumes import Volume
from snapshot_site import SnapshotSite
from used_maps import Comparison

EXT = (
    Volume("old", "ext3", mebibytes=256, mount_point="/mnt/old"),
    Volume("small", "ext4", mebibytes=256, mount_point="/mnt/small"),
    Volume("new", "ext4", mebibytes=256, mount_point="/mnt/new",
           making=("-b", "4096", "-O", "metadata_csum_seed,orphan_file,fast_commit")),
)
XFS = (
    Volume("plain", "xfs", mebibytes=320, mount_point="/mnt/plain", making=("-s", "size=512")),
    Volume("sectors", "xfs", mebibytes=320, mount_point="/mnt/sectors", making=("-s", "size=4096")),
)


@contextlib.contextmanager
def in_use(lab_site):
    """Volumes with a history, changes that haven't been synced, and a file that is deleted but open."""
    with contextlib.ExitStack() as files:
        for name in lab_site.names:
            root = lab_site.mount_point(name)
            age(root, 150)
            file = files.enter_context(open(root / "deleted", "wb", buffering=0))
            file.write(os.urandom(1 << 20))
            (root / "deleted").unlink()
            (root / "fresh").write_bytes(os.urandom(300_000))
        yield


@pytest.fixture
def snapshots(site):
    """snapshots(VOLUMES) maps each volume's name to the volume and the device of its snapshot."""
    with contextlib.ExitStack() as stack:
        def take(volumes):
            lab_site = stack.enter_context(SnapshotSite(volumes))
            stack.enter_context(in_use(lab_site))
            session = stack.enter_context(lab_site.session(incremental=False))
            facts = session.start()
            stack.callback(session.end, "success")
            return {name: (lab_site[name], facts[name]["snapshotPath"]) for name in lab_site.names}
        yield take


def check_map(partition, snapshot):
    assert not Comparison(snapshot, partition.volume.file_system).unexplained, partition.name


def test_ext(snapshots):
    for name, (partition, snapshot) in snapshots(EXT).items():
        assert "needs_recovery" in run("dumpe2fs", "-h", partition.device), name
        assert "needs_recovery" not in run("dumpe2fs", "-h", snapshot), name
        check_map(partition, snapshot)


def test_xfs(snapshots):
    for partition, snapshot in snapshots(XFS).values():
        check_map(partition, snapshot)
