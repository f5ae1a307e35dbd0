"""Loop devices, and nodes for them: /dev is private here, and the kernel makes its nodes elsewhere.

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
    """Of a block device that the kernel knows by this name; None if it knows none."""
    try:
        major, minor = pathlib.Path("/sys/class/block", name, "dev").read_text(encoding="ascii").split(":")
    except FileNotFoundError:
        return None
    return os.makedev(int(major), int(minor))


def make_node(name):
    """Makes the node of a block device in a /dev where the kernel doesn't. One that another device of this
    name has left there is replaced."""
    path = pathlib.Path("/dev", name)
    number = device_number(name)
    if path.is_block_device() and path.stat().st_rdev == number:
        return
    path.unlink(missing_ok=True)
    os.mknod(path, 0o600 | stat.S_IFBLK, number)


def attach(image, *options):
    """Attaches an image to a free loop device. Others may take the one that was free a moment ago, and a
    device that is new to the kernel needs a node first."""
    for attempt in range(1, ATTEMPTS + 1):
        free, *_ = run("losetup", "--find").split() # newer releases add that there is no node yet
        make_node(pathlib.Path(free).name)
        try:
            return run("losetup", "--find", "--show", *options, image)
        except OSError:
            if attempt == ATTEMPTS:
                raise


def backing_files():
    """What each attached loop device of the machine is backed by, by name."""
    found = {}
    for path in pathlib.Path("/sys/block").glob("loop*/loop/backing_file"):
        with contextlib.suppress(OSError): # detached meanwhile
            found[path.parts[3]] = path.read_text(encoding="utf-8").strip()
    return found


def images_on(directory):
    """What the attached loop devices show that lies on the file system of a directory: {device: path}, also
    files without a name. Other namespaces may have files of the same path."""
    return images_of(os.stat(directory).st_dev)


def images_of(file_system):
    """The same by the number that stat() has for the file system, which may be another namespace's."""
    found = {}
    for path in pathlib.Path("/sys/block").glob("loop*/loop"):
        node = pathlib.Path("/dev", path.parent.name)
        with contextlib.suppress(OSError): # it may go
            make_node(node.name)
            with open(node, "rb") as device:
                status = fcntl.ioctl(device, LOOP_GET_STATUS64, bytes(LOOP_STATUS_SIZE))
            if struct.unpack_from("<Q", status)[0] == file_system:
                found[node] = status[LOOP_FILE_NAME:LOOP_FILE_NAME + 64].split(b"\0")[0].decode()
    return found


@contextlib.contextmanager
def attached(image, *options):
    """The device that shows an image. It detaches itself with its last user, so that not even a killed test
    leaves it behind."""
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
    """The descriptor of a device that stays as long as this uses it."""
    user = os.open(device, os.O_RDONLY | os.O_CLOEXEC)
    try:
        yield user
    finally:
        os.close(user)
