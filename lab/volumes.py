"""Disks for the lab: an image with a partition table behind a loop device, and what is on its partitions.

    with Disk([Volume("data", "ext4", mount_point="/mnt/data")]) as disk:
        disk["data"].device, disk["data"].uuid

Inside lab/namespace only: device nodes and mounts are made in its private /dev and mount namespace.

Nothing is left behind, even by `kill -9`: the image lies in memory that belongs to the namespace, and the
loop device is told to detach itself with its last user. Until then that is this object, which keeps it open.
"""
import contextlib
import dataclasses
import fcntl
import math
import os
import pathlib
import re
import stat
import subprocess
import sys
import tempfile

from lab.services import Service, wait_until

ATTEMPTS = 20
SECONDS = 60
SECTORS = 2048 # in a mebibyte
TABLE_MEBIBYTES = 4 # before and behind the partitions
UDEV_CONTROL = pathlib.Path("/run/udev/control")
FSTAB = pathlib.Path("/etc/fstab")
IMAGE_PREFIX = "bekd-lab-"

# Waits for a process that is no child. One that has ended is gone even where nobody reaps it, as in a
# container whose first process does not.
AWAIT_END = """
import contextlib, os, select, sys
with contextlib.suppress(ProcessLookupError):
    select.select([os.pidfd_open(int(sys.argv[1]))], [], [])
"""

MAKERS = {
    "ext3": ("mkfs.ext3", "-q", "-F", "-L"),
    "ext4": ("mkfs.ext4", "-q", "-F", "-L"),
    "xfs": ("mkfs.xfs", "-q", "-f", "-L"),
    "ntfs": ("mkfs.ntfs", "--quick", "--quiet", "--force", "--label"),
    "swap": ("mkswap", "--force", "--label"),
}


def run(*command, **options):
    """Runs a tool; returns what it printed. One that fails is an error that says why."""
    done = subprocess.run(command, capture_output=True, text=True, check=False, timeout=SECONDS, **options)
    if done.returncode != 0:
        raise OSError(f"{' '.join(map(str, command))}: {done.stderr.strip() or done.returncode}")
    return done.stdout.strip()


@dataclasses.dataclass(frozen=True)
class Volume:
    """What a partition is to hold. Without a file system it stays empty; without a mount point it stays
    unmounted. `fstab` is the options of its line in /etc/fstab, which lasts as long as the disk, `making`
    those of the tool that makes the file system."""

    name: str # its label too
    file_system: str = ""
    mebibytes: float = 1024
    mount_point: str = ""
    options: str = "defaults"
    fstab: str = ""
    making: tuple = ()


def keep_mounts_of(pid, *entering):
    """Starts a process that stays in its mount namespace, or in that which the command `entering` goes to,
    until another process has gone.

    When a mount namespace goes, a file system in user space is told, by the last process that was in there.
    If that is its own server, killed, it waits for its own answer for ever, and every sync() of the machine
    with it."""
    return subprocess.Popen([*entering, sys.executable, "-c", AWAIT_END, str(pid)],
                            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                            start_new_session=True)


class NtfsMount(Service):
    """An NTFS volume mounted by ntfs-3g: the process is the mount."""

    def __init__(self, device, mount_point, options):
        super().__init__()
        self.command = ("ntfs-3g", device, mount_point, "-o", f"no_detach,{options}")
        self._mount_point = mount_point
        self._keeper = None

    def start(self):
        super().start()
        self._keeper = keep_mounts_of(self.pid)
        return self

    def is_ready(self):
        return os.path.ismount(self._mount_point)

    def stop(self):
        if os.path.ismount(self._mount_point):
            run("umount", self._mount_point)
        super().stop()
        if self._keeper:
            self._keeper.wait(SECONDS)


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


def attached(token):
    """The loop devices whose images belong to the site of this token."""
    name = re.compile(rf"/{IMAGE_PREFIX}{re.escape(token)}-[^/]*$")
    return [loop for loop, file in backing_files().items() if name.search(file)]


def announce(*devices):
    """Lets udev look at devices anew, and waits until it has."""
    if UDEV_CONTROL.exists():
        run("udevadm", "trigger", "--settle", "--action=change", *devices)


def probe(device, tag):
    """A property that a device shows on itself, such as its UUID; empty if it has none."""
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
    """A volume that is there: on a device, with a UUID."""

    def __init__(self, volume, device):
        self.volume = volume
        self.device = device
        self.uuid = ""

    @property
    def name(self):
        return self.volume.name

    def format(self):
        if self.volume.file_system:
            run(*MAKERS[self.volume.file_system], self.name, *self.volume.making, self.device)
            self.uuid = probe(self.device, "UUID")

    @contextlib.contextmanager
    def mounted(self, mount_point, options="defaults"):
        """Mounts the volume for as long as the context lasts; makes the directory."""
        pathlib.Path(mount_point).mkdir(parents=True, exist_ok=True)
        if self.volume.file_system == "ntfs":
            with NtfsMount(self.device, mount_point, options):
                yield mount_point
            return
        run("mount", "-t", self.volume.file_system, "-o", options, self.device, mount_point)
        try:
            yield mount_point
        finally:
            run("umount", mount_point)

    def fstab_line(self):
        where = self.volume.mount_point or f"/mnt/{self.name}"
        return f"UUID={self.uuid} {where} {self.volume.file_system} {self.volume.fstab} 0 0"


class Disk:
    """A disk of one partition a volume. `token` tells whose it is in the name of the image, which every
    namespace of the machine can see."""

    def __init__(self, volumes, token="disk", directory="/tmp", scheme="gpt"):
        self._volumes = volumes
        self._scheme = scheme
        self._token = token
        self._directory = directory
        self._lasting = contextlib.ExitStack()
        self._partitions = {}
        self.device = None

    def __getitem__(self, name):
        return self._partitions[name]

    def __iter__(self):
        return iter(self._partitions.values())

    def __enter__(self):
        with contextlib.ExitStack() as lasting:
            image = lasting.enter_context(tempfile.NamedTemporaryFile(
                prefix=f"{IMAGE_PREFIX}{self._token}-", dir=self._directory))
            self._attach(lasting, image.name)
            for number, volume in enumerate(self._volumes, 1):
                self._add_partition(lasting, number, volume)
            announce(self.device, *(partition.device for partition in self))
            for partition in self:
                self._take_into_use(lasting, partition)
            self._lasting = lasting.pop_all()
        return self

    def _attach(self, lasting, image):
        mebibytes = sum(math.ceil(volume.mebibytes) for volume in self._volumes)
        os.truncate(image, (mebibytes + TABLE_MEBIBYTES) << 20)
        run("sfdisk", "--quiet", image,
            input="\n".join([f"label: {self._scheme}",
                             *(f"size={int(volume.mebibytes * SECTORS)}" for volume in self._volumes)]))
        self.device = attach(image, "--partscan")
        lasting.callback(self._await_detached, image)
        user = os.open(self.device, os.O_RDONLY | os.O_CLOEXEC)
        lasting.callback(os.close, user)
        # Or udev has the kernel read the partition table, which drops what it can't read.
        fcntl.flock(user, fcntl.LOCK_SH)
        run("losetup", "--detach", self.device) # with its last user, as it is in use
        run("partx", "--add", self.device) # some kernels read no partition tables

    def _await_detached(self, image):
        name = pathlib.Path(self.device).name
        wait_until(lambda: backing_files().get(name) != image, SECONDS, f"{self.device} detached")

    def _add_partition(self, lasting, number, volume):
        partition = Partition(volume, f"{self.device}p{number}")
        make_node(pathlib.Path(partition.device).name)
        lasting.callback(pathlib.Path(partition.device).unlink, missing_ok=True)
        partition.format()
        self._partitions[volume.name] = partition

    def _take_into_use(self, lasting, partition):
        if partition.volume.fstab:
            lasting.enter_context(fstab_line(partition.fstab_line()))
        if partition.volume.mount_point:
            lasting.enter_context(
                partition.mounted(partition.volume.mount_point, partition.volume.options))

    def __exit__(self, *exception):
        self._partitions = {}
        return self._lasting.__exit__(*exception)
