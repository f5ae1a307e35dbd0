"""Checks that several tests of the stand-in snapshot driver share: of records, and of refused calls."""
import errno
import pathlib
import random
import shutil

from change_records import CaptureExtents, differing_units, in_units, marked_units
from lab.driver import STATUS, STORE, info, nodes
from lab.filesystems import kind_of
from lab.volumes import SECTORS
from tolvubd_site import PLACES, call, cow_files, layers, loops, must, stored

NODE = pathlib.Path("/dev/tolvu0")


def small(filesystem):
    """The size of a small volume in sectors."""
    return kind_of(filesystem).mebibytes * SECTORS


def take_snapshot(volume, minor=0, mebibytes=4):
    must("setup_snapshot", minor, volume.device, volume.cow, mebibytes)


def track(volume, minor=0):
    take_snapshot(volume, minor)
    must("transition_incremental", minor)


def restart_machine():
    """Simulates a restart of the machine: the driver's state in memory is lost, that on the disk is kept."""
    shutil.rmtree(STATUS)
    for node in nodes():
        pathlib.Path("/dev", node).unlink()


def write_tree(volume, seed):
    source = random.Random(seed)
    for number in range(20):
        path = volume.mount_point / f"d{number % 4}" / f"f{number}"
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(source.randbytes(source.randrange(200_000)))


def driver_devices():
    """The devices in the driver's status, with the fields that each of them has."""
    fields = ("minor", "cow_file", "block_device", "state", "error")
    return [{field: device[field] for field in fields} for device in info()["devices"]]


def check_record(volume, record, before, after, closed=".tolvu"):
    """Checks the record of the changes between two captures. Returns the units that the volume's programs
    have changed."""
    then, now = CaptureExtents(before, volume.filesystem), CaptureExtents(after, volume.filesystem)
    below = written_below(volume, now)
    volume.place.check_record(set(record.changed_units), marked_units(then, now, closed), below)
    return set(differing_units(before, after)) - below


def written_below(volume, capture):
    """The units of the driver's own files, which it may write while the snapshot exists."""
    own = in_units(extent for extents in capture.own.values() for extent in extents)
    assert own
    return own if volume.place.keeps_files_below else set()


def whole_state(volume):
    state = (STORE / "state.json").read_bytes()
    files = {name: (volume.mount_point / name).lstat()[:2] for name in cow_files(volume)}
    return info(), nodes(), loops(), layers() if PLACES[1:] else [], stored(), files, state


def check_refused(volume, error, function, *arguments):
    before = whole_state(volume)
    result = call(function, *arguments)
    assert (result.value, errno.errorcode.get(result.error)) == (-1, errno.errorcode[error])
    assert whole_state(volume) == before
    volume.write("alive", b"not frozen")
