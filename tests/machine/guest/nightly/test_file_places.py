"""The placement of the driver's own files: in many extents, or sharing blocks with other files."""
import contextlib
import ctypes
import errno
import os

import pytest

from dm_site import Protected, logical_volumes
from lab.commands import run
from lab.images import extents_on
from tolvubd_site import Volume, call, cow_files, layers, must, states

MEBIBYTES = {"ext4": 192, "xfs": 448}
KEEP_SIZE, PUNCH_HOLE = 1, 2
SPARE = 4 << 20 # contiguous free space for the file system itself


@pytest.fixture
def make_volume(group):
    with contextlib.ExitStack() as stack:
        stack.callback(run, "lvremove", "-ff", "-y", group.name)
        yield lambda filesystem: stack.enter_context(
            Volume("data", filesystem, MEBIBYTES[filesystem] * 2048, logical_volumes(group)))


def scatter_free_space(volume, piece):
    """Leaves free space only in pieces of `piece` bytes: punches them into a file that fills the volume."""
    if volume.filesystem == "xfs": # XFS reserves contiguous room
        run("xfs_io", "-x", "-c", "resblks 0", volume.mount_point)
    library = ctypes.CDLL(None, use_errno=True)
    with open(volume.mount_point / "filling", "wb") as file:
        space = os.fstatvfs(file.fileno())
        size = (space.f_bfree * space.f_frsize - SPARE) // piece * piece
        os.posix_fallocate(file.fileno(), 0, size)
        os.fsync(file.fileno())
        for at in range(0, size, 2 * piece):
            done = library.fallocate(file.fileno(), KEEP_SIZE | PUNCH_HOLE, ctypes.c_long(at),
                                     ctypes.c_long(piece))
            assert done == 0, os.strerror(ctypes.get_errno())
        os.fsync(file.fileno())


def pieces_of(volume, name):
    return len(extents_on(volume.device, volume.filesystem, volume.mount_point, name))


@pytest.mark.parametrize("filesystem", MEBIBYTES)
def test_files_in_many_pieces(make_volume, filesystem):
    volume = make_volume(filesystem)
    scatter_free_space(volume, 128 << 10)
    with Protected(volume, cow_mebibytes=12) as protected:
        assert layers()
        assert sum(pieces_of(volume, name) for name in cow_files(volume)) > 128
        assert protected.check_snapshot() == "snapshot right"
        protected.track()
        assert protected.next_record() == "set right"
        protected.end()


@pytest.mark.parametrize("filesystem", MEBIBYTES)
def test_files_in_too_many_pieces(make_volume, filesystem):
    """Tracking continues without the snapshot that would need such a file, until there is contiguous room."""
    volume = make_volume(filesystem)
    with Protected(volume, cow_mebibytes=12) as protected:
        protected.track()
        scatter_free_space(volume, 16 << 10)
        refused = call("transition_snapshot", 0, volume.other_cow, 12)
        assert (refused.value, refused.error) == (-1, errno.EOPNOTSUPP)
        assert ".tolvu1" not in cow_files(volume)
        assert (states(), protected.error()) == ({0: 2}, 0)
        (volume.mount_point / "filling").unlink()
        assert protected.next_record() == "set right"
        protected.end()


def test_file_that_somebody_shares(make_volume):
    """A copy on XFS shares its blocks with the original; the driver's own files stay where they are."""
    volume = make_volume("xfs")
    with Protected(volume, cow_mebibytes=12) as protected:
        for name in cow_files(volume):
            run("cp", "--reflink=always", volume.mount_point / name, volume.mount_point / f"copy{name}")
        assert protected.check_snapshot() == "snapshot right"
        must("transition_incremental", 0)
        assert protected.next_record() == "set right"
        protected.end()


@pytest.mark.parametrize("filesystem, tool", {"ext4": "e4defrag", "xfs": "xfs_fsr"}.items())
def test_files_are_not_moved(make_volume, filesystem, tool):
    """Neither a defragmenter nor root can move, change or remove them."""
    volume = make_volume(filesystem)
    scatter_free_space(volume, 128 << 10)
    with Protected(volume, cow_mebibytes=12) as protected:
        (volume.mount_point / "filling").unlink()
        before = {name: extents_on(volume.device, filesystem, volume.mount_point, name)
                  for name in cow_files(volume)}
        for name in before:
            for command in ((tool, "-v"), ("truncate", "-s", "0"), ("rm", "-f")):
                with contextlib.suppress(OSError):
                    run(*command, volume.mount_point / name)
        assert before == {name: extents_on(volume.device, filesystem, volume.mount_point, name)
                          for name in cow_files(volume)}
        assert protected.check_snapshot() == "snapshot right"
        protected.end()
