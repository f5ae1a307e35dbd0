"""Volumes to snapshot, and the snapshot driver as its callers see it, for inside lab/namespace."""
import contextlib
import os
import pathlib
import struct
import subprocess

from lab import driver, filesystems, volumes
from lab.commands import run
from lab.daemon import program
from lab.driver import STORE
from lab.filesystems import mounted
from lab.loops import images_on
from lab.lvm import spare_disks
from lab.resources import Resource
from lab.services import wait_until

UNIT = 4096
TABLE_OFFSET = 4096
TRACKING, SNAPSHOT = 2, 3
PLACES = ("partition", "logical volume") if spare_disks() else ("partition",) # for volumes, on this machine
STORE_FILES = ("lock", "starts", "state.json") # what the store holds besides captures


class Partitions:
    """Volumes that the driver captures. Each is on a disk of its own, a sparse file that is removed with
    it."""

    smallest_sectors = 0
    own_files = ()  # besides CoW files
    keeps_files_below = False
    frozen_text = "ms while {} bytes were captured" # how the log line continues; {} is the number of bytes

    @contextlib.contextmanager
    def __call__(self, name, filesystem, sectors):
        """Yields the device of a new volume with a file system."""
        with volumes.Disk([volumes.Volume(name, filesystem, sectors / volumes.SECTORS)]) as disk:
            made, = disk
            yield made.device

    @staticmethod
    def unmounted(volume):
        """A block device that isn't mounted."""
        return str(volume.device)[:-2]

    @staticmethod
    def expect(shown, kept, where=""):
        """Checks the driver's captures: `kept` of them in all, `shown` of them by readable snapshots."""
        assert len(stored()) == kept, where
        expect_loops(shown, where)

    @staticmethod
    def check_record(recorded, changed, _below):
        """Checks that the driver reports exactly the units that have changed."""
        assert recorded == changed


class LogicalVolumes:
    """Volumes that device-mapper tracks, in the volume group of a machine."""

    smallest_sectors = 96 * 2048 # .tolvu.era needs room
    own_files = (".tolvu.era",)
    # Without these options, small volumes have blocks of 1 KiB, and the kernel writes inode tables during
    # snapshots.
    blocks = {name: ("-b", "4096", "-E", "lazy_itable_init=0") for name in ("ext2", "ext3", "ext4")}
    layers_tracking, layers_showing = 3, 2
    keeps_files_below = True # the snapshot's store is written below the snapshot's layer
    frozen_text = "ms to take a snapshot of {} bytes"

    def __init__(self, group):
        self._group = group

    @contextlib.contextmanager
    def __call__(self, name, filesystem, sectors):
        device = self._group.create(name, -(-sectors // volumes.SECTORS))
        try:
            filesystems.make(filesystem, device, *self.blocks.get(filesystem, ()))
            yield device
        finally:
            run("lvremove", "-ff", "-y", f"{self._group.name}/{name}")

    def unmounted(self, _volume):
        return str(self._group.spare)

    def expect(self, shown, kept, where=""):
        assert len(layers()) == self.layers_tracking * kept + self.layers_showing * shown, where
        assert (stored(), loops()) == ([], []), where

    @staticmethod
    def check_record(recorded, changed, below):
        """Checks that the driver reports at least the changed units, except for its own files, which are
        written below the layers."""
        assert recorded >= changed - below


def layers():
    """The names of the driver's device-mapper devices."""
    listed = run("dmsetup", "info", "-c", "--noheadings", "-o", "name,uuid")
    return [line.split(":")[0] for line in listed.splitlines() if ":TOLVU-" in line]


class Volume(Resource):
    """A mounted file system on a device that `place` provides."""

    def __init__(self, name, filesystem, sectors, place=Partitions()):
        super().__init__()
        self.filesystem = filesystem
        self.mount_point = pathlib.Path("/run/volumes", name)
        self.place = place
        self._made = place(name, filesystem, sectors)

    def open(self, stack):
        self.device = pathlib.Path(stack.enter_context(self._made))
        self.size = int(run("blockdev", "--getsize64", self.device))
        self.mount()
        stack.callback(self.unmount)

    @property
    def cow(self):
        return self.mount_point / ".tolvu"

    @property
    def other_cow(self):
        return self.mount_point / ".tolvu1"

    def mount(self):
        self._mount = contextlib.ExitStack()
        self._mount.enter_context(mounted(self.filesystem, self.device, self.mount_point))

    def unmount(self):
        self._mount.close()

    def write(self, name, content):
        """Writes a file through to the device; blocks while the file system is frozen."""
        with open(self.mount_point / name, "wb") as file:
            file.write(content)
            file.flush()
            os.fsync(file.fileno())


def unlock(path):
    """Makes a file changeable that only the driver should change."""
    run("chattr", "-i", path)


class Result:
    """The result of a library call."""

    def __init__(self, done):
        words = done.stdout.split()
        self.signal = -done.returncode if done.returncode < 0 else 0
        self.value, self.error = (int(words[-2]), int(words[-1])) if len(words) >= 2 else (None, None)

    def __bool__(self):
        return self.value == 0


def call(function, *arguments, wrapper=()):
    """Calls a function of the library in a process of its own, which `wrapper` may start."""
    done = subprocess.run([*wrapper, program("TolvubdCall"), function, *map(str, arguments)],
                          capture_output=True, text=True, check=False, timeout=60)
    return Result(done)


def must(function, *arguments):
    result = call(function, *arguments)
    assert result, f"{function} failed with {os.strerror(result.error)}"


def tolvuctl(*arguments):
    return subprocess.run([program("tolvuctl"), *map(str, arguments)], capture_output=True, text=True,
                          check=False, timeout=60)


def states():
    """{minor: state} of the devices in the driver's status."""
    return {device["minor"]: device["state"] for device in driver.info()["devices"]}


def loops():
    """The names of the captures that are attached to loop devices."""
    return sorted(pathlib.Path(file).name for file in images_on(STORE).values())


def expect_loops(count, where=""):
    """Waits for this number of loop devices, as one goes only when its last user, which may be any process,
    closes it."""
    wait_until(lambda: len(loops()) == count, 5, f"{count} loop devices {where}")


def stored():
    return sorted(path.name for path in STORE.iterdir() if not path.name.startswith(STORE_FILES))


def detach_captures():
    """Cleans up after a failed test: the machine's loop devices outlive the test's own files."""
    for loop in images_on(STORE):
        run("losetup", "-d", loop)


@contextlib.contextmanager
def started_driver():
    """A driver without devices. At the end, nothing of it may be left outside of the volumes."""
    driver.end_session()
    must("start")
    try:
        yield
        assert (driver.nodes(), stored()) == ([], [])
        expect_loops(0)
    finally:
        detach_captures()


def cow_files(volume):
    return sorted(path.name for path in volume.mount_point.glob(".tolvu*"))


class Cow:
    """A CoW file, read without the driver."""

    def __init__(self, path, volume):
        data = path.read_bytes()
        self.magic, = struct.unpack_from("<I", data, 0)
        self.snapshot = data[32:48]
        self.version, self.changed = struct.unpack_from("<QQ", data, 48)
        entries = (volume.size + UNIT - 1) // UNIT
        self.table = struct.unpack_from(f"<{entries}Q", data, TABLE_OFFSET)
        self.rest = data[TABLE_OFFSET + 8 * entries:]
        self.length = len(data)
        self.allocated = path.stat().st_blocks * 512

    @property
    def changed_units(self):
        return [unit for unit, word in enumerate(self.table) if word]
