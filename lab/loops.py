"""Loop devices and their nodes: /dev is private here, so the kernel doesn't make the nodes.

    with attached(image, "--read-only") as device:
        ...
"""
import contextlib
import fcntl
import os
import pathlib
import stat
import struct

from lab.commands import run
from lab.services import wait_until

ATTEMPTS = 20
SECONDS = 600
LOOP_GET_STATUS64, LOOP_STATUS_SIZE, LOOP_FILE_NAME = 0x4C05, 232, 56


def device_number(name):
    """The number of the block device with this name; None if the kernel has no such device."""
    try:
        major, minor = pathlib.Path("/sys/class/block", name, "dev").read_text(encoding="ascii").split(":")
    except FileNotFoundError:
        return None
    return os.makedev(int(major), int(minor))


def make_node(name):
    """Makes the node of a block device in a /dev that the kernel doesn't fill. Replaces the node of an
    earlier device with this name."""
    path = pathlib.Path("/dev", name)
    number = device_number(name)
    if path.is_block_device() and path.stat().st_rdev == number:
        return
    path.unlink(missing_ok=True)
    os.mknod(path, 0o600 | stat.S_IFBLK, number)


def attach(image, *options):
    """Attaches an image to a free loop device. Retries, as another process may take the device that was free
    a moment ago. A device that is new to the kernel needs a node first."""
    for attempt in range(1, ATTEMPTS + 1):
        free, *_ = run("losetup", "--find").split() # newer releases also say that the device has no node yet
        make_node(pathlib.Path(free).name)
        try:
            return run("losetup", "--find", "--show", *options, image)
        except OSError:
            if attempt == ATTEMPTS:
                raise


def backing_files():
    """The backing file of each attached loop device of the machine, by the device's name."""
    found = {}
    for path in pathlib.Path("/sys/block").glob("loop*/loop/backing_file"):
        with contextlib.suppress(OSError): # detached meanwhile
            found[path.parts[3]] = path.read_text(encoding="utf-8").strip()
    return found


def images_on(directory):
    """The attached loop devices whose backing file is on the file system of `directory`: {device: path}.
    Files that have been deleted count too. Other namespaces may have files of the same path."""
    return images_of(os.stat(directory).st_dev)


def images_of(file_system):
    """The same as images_on(), by the file system's device number (st_dev), which may belong to another
    namespace."""
    found = {}
    for path in pathlib.Path("/sys/block").glob("loop*/loop"):
        node = pathlib.Path("/dev", path.parent.name)
        with contextlib.suppress(OSError): # the device may be detached meanwhile
            make_node(node.name)
            with open(node, "rb") as device:
                status = fcntl.ioctl(device, LOOP_GET_STATUS64, bytes(LOOP_STATUS_SIZE))
            if struct.unpack_from("<Q", status)[0] == file_system:
                found[node] = status[LOOP_FILE_NAME:LOOP_FILE_NAME + 64].split(b"\0")[0].decode()
    return found


@contextlib.contextmanager
def attached(image, *options):
    """A loop device for an image. It detaches itself when its last user closes it, so even a killed test
    leaves none behind."""
    device = attach(image, *options)
    name = pathlib.Path(device).name
    file = backing_files()[name]
    try:
        with kept_open(device):
            run("losetup", "--detach", device)
            yield device
    finally:
        wait_until(lambda: backing_files().get(name) != file, SECONDS, f"{device} detached")


@contextlib.contextmanager
def kept_open(device):
    """Keeps a device open during the context; yields the file descriptor."""
    user = os.open(device, os.O_RDONLY | os.O_CLOEXEC)
    try:
        yield user
    finally:
        os.close(user)
