"""File systems in image files: making, ageing and freezing them."""
import contextlib
import ctypes
import fcntl
import os
import pathlib
import random
import stat
import subprocess

LOOP_CTL_GET_FREE = 0x4C82
LOOP_MAJOR = 7
KEEP_SIZE_AND_PUNCH = 3
libc = ctypes.CDLL(None, use_errno=True)


def run(*command, **options):
    return subprocess.run([str(part) for part in command], check=True, capture_output=True, text=True,
                          **options).stdout


def make_image(path, mebibytes, *mkfs):
    path.unlink(missing_ok=True)
    with open(path, "wb") as file:
        file.truncate(mebibytes * 1024 * 1024)
    run(*mkfs, path)
    return path


@contextlib.contextmanager
def attached(image):
    """The image as a loop device, detached at the end whatever happens."""
    for _ in range(20):  # others may take the free device first
        with open("/dev/loop-control", "rb") as control:
            number = fcntl.ioctl(control, LOOP_CTL_GET_FREE)
        device = pathlib.Path(f"/dev/loop{number}")
        if not device.exists():  # devices are born outside of this namespace
            os.mknod(device, stat.S_IFBLK | 0o600, os.makedev(LOOP_MAJOR, number))
        if subprocess.run(["losetup", device, image], capture_output=True, check=False).returncode == 0:
            break
    else:
        raise RuntimeError("there is no free loop device")
    try:
        yield device
    finally:
        run("losetup", "--detach", device)


@contextlib.contextmanager
def mounted(image, directory):
    """(device, mount point) of the image."""
    directory.mkdir(exist_ok=True)
    with attached(image) as device:
        run("mount", device, directory)
        try:
            yield device, directory
        finally:
            run("umount", directory)


@contextlib.contextmanager
def frozen(directory):
    run("fsfreeze", "--freeze", directory)
    try:
        yield
    finally:
        run("fsfreeze", "--unfreeze", directory)


def age(directory, operations, seed=1, largest=300_000):
    """Creates, cuts and deletes files at random, the same way each time."""
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
            else:
                os.truncate(dice.choice(files), dice.randrange(largest))
    os.sync()


def fill(directory):
    """Fills the volume to the last block."""
    with contextlib.suppress(OSError), open(directory / "filler", "wb", buffering=0) as file:
        while True:
            file.write(bytes(65536))
    os.sync()


def riddle(file, block_size, holes):
    """Frees every other block of a new file, so that each is a free extent of its own."""
    with open(file, "wb") as stream:
        os.posix_fallocate(stream.fileno(), 0, 2 * holes * block_size)
        for hole in range(holes):
            offset = ctypes.c_long(2 * hole * block_size)
            if libc.fallocate(stream.fileno(), KEEP_SIZE_AND_PUNCH, offset, ctypes.c_long(block_size)) != 0:
                raise OSError(ctypes.get_errno(), "a hole can't be punched")
    os.sync()


def xfs_value(volume, place, name):
    """A number of an XFS volume, by the name that its tool has for it in a structure."""
    return int(run("xfs_db", "-r", "-c", place, "-c", f"p {name}", volume).split("=")[1])


def xfs_levels(volume, group=0):
    return xfs_value(volume, f"agf {group}", "bnolevel")
