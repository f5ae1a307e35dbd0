"""Volumes on device-mapper with a device of the driver, while a program writes; and checks of the snapshots
and records that must hold whatever happens to the volume meanwhile."""
import contextlib
import errno
import json
import os
import pathlib
import subprocess
import sys

from lab import filesystems
from lab.commands import run
from lab.driver import forget_devices, info
from lab.images import extents_on
from lab.resources import Resource
from lab.services import wait_until
from tolvubd_site import Cow, LogicalVolumes, SNAPSHOT, UNIT, call, cow_files, layers, must, states, tolvuctl

SECONDS = 60
COW_MEBIBYTES = 12
EVENT_SECONDS = 5 # within which a snapshot that isn't valid any more must fail
PIECE = 1 << 20
SECTORS = 2048 # per MiB
BLOCKS = LogicalVolumes.blocks


def logical_volumes(group, *options, slack=0):
    """Returns the place for a Volume in a volume group: the device is made with these options, and with
    `slack` MiB more than the file system needs."""
    @contextlib.contextmanager
    def place(name, filesystem, sectors):
        device = group.create(name, -(-sectors // SECTORS), *options)
        filesystems.make(filesystem, device, *BLOCKS.get(filesystem, ()))
        if slack:
            run("lvextend", "-L", f"+{slack}m", f"{group.name}/{name}", *options)
        yield device
    return place


class Unreadable(Exception):
    """A device returned an error instead of its data."""


def picture(device):
    """A hash of each unit on a device, read past the page cache. The units of two moments themselves don't
    fit in a machine's memory."""
    with subprocess.Popen(["dd", f"if={device}", f"bs={PIECE}", "iflag=direct", "status=none"],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE) as reading:
        units = [hash(piece[at:at + UNIT]) for piece in iter(lambda: reading.stdout.read(PIECE), b"")
                 for at in range(0, len(piece), UNIT)]
        if reading.wait(SECONDS) != 0:
            raise Unreadable(reading.stderr.read().decode())
    return units


def is_readable(device):
    return subprocess.run(["dd", f"if={device}", "of=/dev/null", "bs=4096", "count=1", "iflag=direct"],
                          capture_output=True, check=False, timeout=SECONDS).returncode == 0


def differing(before, after):
    """The numbers of the units in which two pictures differ."""
    assert len(before) == len(after)
    return {number for number, (old, new) in enumerate(zip(before, after)) if old != new}


class Writer(Resource):
    """A program that writes to a directory during the context. None of its writes may fail, and what it has
    written must be there in the end."""

    def __init__(self, directory):
        super().__init__()
        self._command = [sys.executable, pathlib.Path(__file__).with_name("writer.py"), directory]
        self._busy = pathlib.Path(directory, "busy")

    def open(self, stack):
        self._process = subprocess.Popen(self._command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         text=True)
        stack.callback(self._process.kill)
        self.wait_for_writes()

    def wait_for_writes(self):
        """Waits until the program has written again."""
        before = self._changed()
        wait_until(lambda: self._changed() != before, SECONDS, "a write")

    def _changed(self):
        return os.stat(self._busy).st_mtime_ns if self._busy.exists() else None

    def end(self):
        said = json.loads(self._process.communicate(timeout=SECONDS)[0])
        assert said["errors"] == []
        return said


class Protected(Resource):
    """A volume that has a snapshot, and a program that writes to it. `first` is the snapshot's picture.
    `changed` counts the units that have changed according to the pictures, `untouched` those that only a
    record names."""

    def __init__(self, volume, minor=0, cow_mebibytes=COW_MEBIBYTES):
        super().__init__()
        self.volume = volume
        self.minor = minor
        self.node = pathlib.Path(f"/dev/tolvu{minor}")
        self._cow_mebibytes = cow_mebibytes
        self._files = [volume.cow, volume.other_cow]
        self.changed = self.untouched = 0

    def open(self, stack):
        stack.callback(forget_devices)
        self.writer = stack.enter_context(Writer(self.volume.mount_point))
        self.start()

    def start(self):
        """Takes the first snapshot."""
        must("setup_snapshot", self.minor, self.volume.device, self.volume.cow, self._cow_mebibytes)
        self.begin()

    def begin(self):
        """Continues after the first snapshot has been taken."""
        self._files = [self.volume.cow, self.volume.other_cow]
        self.first = picture(self.node)
        self._own = self.own_units()
        self.writer.wait_for_writes()

    def track(self):
        must("transition_incremental", self.minor)
        self.writer.wait_for_writes()

    def error(self):
        """The device's error in the driver's status, after the driver has checked it."""
        must("start")
        return next(device["error"] for device in info()["devices"] if device["minor"] == self.minor)

    def own_units(self):
        """The units of the driver's own files, which no backup copies."""
        return {unit for name in cow_files(self.volume)
                for begin, length in extents_on(self.volume.device, self.volume.filesystem,
                                                self.volume.mount_point, name)
                for unit in range(begin // UNIT, -(-(begin + length) // UNIT))}

    def outcome(self):
        """The outcome for the device, in words; fails if a picture or a record is wrong."""
        if states().get(self.minor) != SNAPSHOT:
            return self.next_record()
        picture_is = self.check_snapshot()
        ended = call("transition_incremental", self.minor)
        if not ended:
            return f"{picture_is}; {self.full_comparison(ended)}"
        self.writer.wait_for_writes()
        return f"{picture_is}; {self.next_record()}"

    def check_snapshot(self):
        """Checks that the snapshot shows its moment, or nothing."""
        try:
            now = picture(self.node)
        except Unreadable:
            now = None
        sound, error = call("check_snapshot", self.minor), self.error()
        assert bool(sound) == (error == 0)
        if now is not None and sound:
            wrong = differing(self.first, now) - self._own
            assert not wrong, f"{len(wrong)} units are not the moment's, and nothing says so"
            return "snapshot right"
        assert error != 0, "the snapshot can't be read, and nothing says why"
        wait_until(lambda: not is_readable(self.node), EVENT_SECONDS, f"{self.node} unreadable")
        return f"snapshot ended ({errno.errorcode[error]})"

    def next_record(self):
        """Checks that the next snapshot's record has all units that have changed since the last picture,
        unless the snapshot is refused."""
        done = self.take_next()
        return self.check_record() if done else self.full_comparison(done)

    def take_next(self, wrapper=()):
        return call("transition_snapshot", self.minor, self._files[1], self._cow_mebibytes, wrapper=wrapper)

    def check_record(self):
        """Checks the record after another snapshot has been taken."""
        closed, current = self._files
        now, error = picture(self.node), self.error()
        assert error == 0, "a snapshot was taken of what isn't sound"
        recorded = set(Cow(closed, self.volume).changed_units)
        differ = differing(self.first, now) - self._own - self.own_units()
        assert not differ - recorded, f"{len(differ - recorded)} of {len(differ)} changed units are missing"
        assert len(differ) > 0
        self.changed += len(differ)
        self.untouched += len(recorded - differ)
        self.first, self._files = now, [current, closed]
        self._own |= self.own_units()
        return "set right" if len(recorded) < self.volume.size // UNIT else "everything told"

    def full_comparison(self, refused):
        """Checks that a device that isn't trusted reports it; makes it anew, and tracks it again if the
        volume still allows that."""
        assert refused.value == -1 and refused.error != 0
        assert self.error() != 0, f"refused with {errno.errorcode[refused.error]}, but the status is healthy"
        done = tolvuctl("destroy", self.minor)
        assert done.returncode == 0, done.stderr
        assert layers() == []
        table = run("dmsetup", "table", self.volume.device).splitlines()
        is_linear = all(" linear " in line for line in table)
        self.start()
        assert bool(layers()) == is_linear, tolvuctl("list").stdout
        if self.volume.filesystem.startswith("ext"):
            run("e2fsck", "-fn", self.node)
        end = "tracked again" if is_linear else "then captured"
        return f"full comparison ({errno.errorcode[refused.error]}), {end}"

    def end(self):
        """Checks that the writing program saw no error, and that the volume is as LVM has it, and sound."""
        self.writer.end()
        forget_devices()
        assert layers() == []
