"""File systems in image files: how to make, age and freeze them."""
import contextlib
import ctypes
import os
import random

from lab import filesystems
from lab.commands import run
from lab.loops import attached

KEEP_SIZE_AND_PUNCH = 3
libc = ctypes.CDLL(None, use_errno=True)


def make_image(path, mebibytes, file_system, *options):
    """Makes a file with a file system in it; `options` are those of the tool."""
    path.unlink(missing_ok=True)
    with open(path, "wb") as file:
        file.truncate(mebibytes << 20)
    filesystems.make(file_system, path, *options)
    return path


@contextlib.contextmanager
def mounted(image, file_system, directory):
    """Mounts the image; yields (device, mount point)."""
    with attached(image) as device, filesystems.mounted(file_system, device, directory):
        yield device, directory


@contextlib.contextmanager
def frozen(directory):
    run("fsfreeze", "--freeze", directory)
    try:
        yield
    finally:
        run("fsfreeze", "--unfreeze", directory)


def age(directory, operations, seed=1, largest=300_000, is_plain=False):
    """Creates, truncates and deletes files at random, the same way for each seed. Truncates none if
    `is_plain` is true."""
    dice = random.Random(seed)
    files = []
    for number in range(operations):
        choice = dice.random()
        with contextlib.suppress(OSError):  # the disk may be full
            if choice < 0.6 or not files:
                place = directory / f"d{dice.randrange(8)}"
                place.mkdir(exist_ok=True)
                files.append(place / f"f{number}")
                files[-1].write_bytes(dice.randbytes(1000) * (dice.randrange(largest) // 1000))
            elif choice < 0.8:
                files.pop(dice.randrange(len(files))).unlink(missing_ok=True)
            elif not is_plain:
                os.truncate(dice.choice(files), dice.randrange(largest))
    os.sync()


def fill(directory):
    """Fills the volume up to the last block."""
    with contextlib.suppress(OSError), open(directory / "filler", "wb", buffering=0) as file:
        while True:
            file.write(bytes(65536))
    os.sync()


def fragment_free_space(file, block_size, holes):
    """Frees every other block of a new file, so that each becomes a free extent of its own."""
    with open(file, "wb") as stream:
        os.posix_fallocate(stream.fileno(), 0, 2 * holes * block_size)
        for hole in range(holes):
            offset = ctypes.c_long(2 * hole * block_size)
            if libc.fallocate(stream.fileno(), KEEP_SIZE_AND_PUNCH, offset, ctypes.c_long(block_size)) != 0:
                raise OSError(ctypes.get_errno(), "a hole can't be punched")
    os.sync()


def fragment_with_files(directory, size, holes):
    """Does the same if no holes can be punched: deletes every other one of new files."""
    directory.mkdir()
    for number in range(2 * holes):
        (directory / f"f{number}").write_bytes(bytes(size))
    for number in range(0, 2 * holes, 2):
        (directory / f"f{number}").unlink()
    os.sync()
