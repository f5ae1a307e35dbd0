"""Disks for the lab: an image with a partition table behind a loop device, and volumes on its partitions.

    with Disk([Volume("data", "ext4", mount_point="/mnt/data")]) as disk:
        disk["data"].device, disk["data"].uuid

Inside lab/namespace only: device nodes and mounts are made in the private /dev and mount namespace.

Nothing is left behind, even after `kill -9`: the image is in memory that belongs to the namespace, and the
loop device detaches itself when its last user closes it. That user is this object, which keeps it open.
"""
import contextlib
import dataclasses
import fcntl
import math
import os
import pathlib
import re
import subprocess
import tempfile

from lab import filesystems
from lab.commands import run
from lab.loops import attach, backing_files, kept_open, make_node
from lab.resources import Resource
from lab.services import wait_until

SECONDS = 60
SECTORS = 2048 # in a mebibyte
TABLE_MEBIBYTES = 4 # MiB before and after the partitions
UDEV_CONTROL = pathlib.Path("/run/udev/control")
FSTAB = pathlib.Path("/etc/fstab")
IMAGE_PREFIX = "bekd-lab-"


@dataclasses.dataclass(frozen=True)
class Volume:
    """The content of a partition. Without a file system it stays empty; without a mount point it isn't
    mounted. `fstab` has the options for a line in /etc/fstab, which stays as long as the disk; `making` those
    for the tool that makes the file system."""

    name: str # also the label
    file_system: str = ""
    mebibytes: float = 1024
    mount_point: str = ""
    options: str = "defaults"
    fstab: str = ""
    making: tuple = ()


def loops_of(token):
    """The loop devices whose images belong to the site with this token."""
    name = re.compile(rf"/{IMAGE_PREFIX}{re.escape(token)}-[^/]*$")
    return [loop for loop, file in backing_files().items() if name.search(file)]


def announce(*devices):
    """Makes udev examine devices again, and waits until it has."""
    if UDEV_CONTROL.exists():
        run("udevadm", "trigger", "--settle", "--action=change", *devices)


def probe(device, tag):
    """A property that is stored on a device, such as its UUID; empty if there is none."""
    done = subprocess.run(["blkid", "--probe", "--output", "value", "--match-tag", tag, device],
                          capture_output=True, text=True, check=False, timeout=SECONDS)
    return done.stdout.strip()


@contextlib.contextmanager
def fstab_line(line):
    old = FSTAB.read_text(encoding="utf-8") if FSTAB.exists() else ""
    FSTAB.write_text(f"{old.rstrip()}\n{line}\n".lstrip(), encoding="utf-8")
    try:
        yield
    finally:
        lines = FSTAB.read_text(encoding="utf-8").splitlines(keepends=True)
        FSTAB.write_text("".join(kept for kept in lines if kept.rstrip("\n") != line), encoding="utf-8")


class Partition:
    """A volume on its device, with its UUID."""

    def __init__(self, volume, device):
        self.volume = volume
        self.device = device
        self.uuid = ""

    @property
    def name(self):
        return self.volume.name

    def format(self):
        if self.volume.file_system:
            filesystems.make(self.volume.file_system, self.device, *self.volume.making, label=self.name)
            self.uuid = probe(self.device, "UUID")

    def mounted(self, mount_point, options="defaults"):
        """Mounts the volume for as long as the context lasts; makes the directory, and yields it."""
        return filesystems.mounted(self.volume.file_system, self.device, mount_point, options)

    def fstab_line(self):
        where = self.volume.mount_point or f"/mnt/{self.name}"
        return f"UUID={self.uuid} {where} {self.volume.file_system} {self.volume.fstab} 0 0"


class Disk(Resource):
    """A disk with one partition for each volume. `token` is part of the image's name, which every namespace
    of the machine can see, and tells whose disk it is."""

    def __init__(self, volumes, token="disk", directory="/tmp", scheme="gpt"):
        super().__init__()
        self._volumes = volumes
        self._scheme = scheme
        self._token = token
        self._directory = directory
        self._partitions = {}
        self.device = None # the whole disk, if there is one

    def __getitem__(self, name):
        return self._partitions[name]

    def __iter__(self):
        return iter(self._partitions.values())

    def open(self, stack):
        self.open_medium(stack)
        for number, volume in enumerate(self._volumes, 1):
            partition = Partition(volume, self.device_of(stack, number, volume))
            partition.format()
            self._partitions[volume.name] = partition
        announce(*filter(None, [self.device]), *(partition.device for partition in self))
        for partition in self:
            self._take_into_use(stack, partition)

    def open_medium(self, stack):
        """Makes the disk that the partitions are on."""
        image = stack.enter_context(tempfile.NamedTemporaryFile(
            prefix=f"{IMAGE_PREFIX}{self._token}-", dir=self._directory))
        self._attach(stack, image.name)

    def device_of(self, stack, number, _volume):
        """The device of a volume; the first volume is number 1."""
        device = f"{self.device}p{number}"
        make_node(pathlib.Path(device).name)
        stack.callback(pathlib.Path(device).unlink, missing_ok=True)
        return device

    def _attach(self, stack, image):
        mebibytes = sum(math.ceil(volume.mebibytes) for volume in self._volumes)
        os.truncate(image, (mebibytes + TABLE_MEBIBYTES) << 20)
        run("sfdisk", "--quiet", image,
            input="\n".join([f"label: {self._scheme}",
                             *(f"size={int(volume.mebibytes * SECTORS)}" for volume in self._volumes)]))
        self.device = attach(image, "--partscan")
        stack.callback(self._await_detached, image)
        user = stack.enter_context(kept_open(self.device))
        # Without the lock, udev makes the kernel read the partition table again, which drops partitions it
        # can't read.
        fcntl.flock(user, fcntl.LOCK_SH)
        run("losetup", "--detach", self.device) # takes effect when its last user closes it
        run("partx", "--update", self.device) # some kernels don't read partition tables

    def _await_detached(self, image):
        name = pathlib.Path(self.device).name
        wait_until(lambda: backing_files().get(name) != image, SECONDS, f"{self.device} detached")

    def _take_into_use(self, stack, partition):
        if partition.volume.fstab:
            stack.enter_context(fstab_line(partition.fstab_line()))
        if partition.volume.mount_point:
            stack.enter_context(
                partition.mounted(partition.volume.mount_point, partition.volume.options))

    def __exit__(self, *exception):
        self._partitions = {}
        return super().__exit__(*exception)
