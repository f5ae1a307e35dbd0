"""A site whose volumes can be snapshotted, and the program that takes snapshots as a backup does.

    with SnapshotSite() as site:
        with site.session("data") as session:
            facts = session.start()["data"]
            session.end("success")
"""
import contextlib
import json
import pathlib
import random
import shutil
import struct
import subprocess
import tempfile

from change_records import UNIT
from lab import driver
from lab.daemon import BASE, CONFIG, program
from lab.driver import STATUS, STORE, nodes
from lab.logical_disk import are_volumes_logical
from lab.loops import images_on
from lab.lvm import spare_disks
from lab.resources import Resource
from lab.services import wait_until
from lab.site import Site
from lab.snapshots import MOUNT_ROOT, Session, SessionError, drop_snapshots, mounts
from lab.volumes import Volume
from tolvubd_site import LogicalVolumes, layers

SECONDS = 60
COW_MIB = 100
# A lab machine gets only the computing time that its host can spare, so its limit is longer. A volume that is
# frozen for too long is released after ten seconds, which both limits detect.
WRITABLE_SECONDS = 5 if spare_disks() else 1
EXT4 = Volume("data", "ext4", mebibytes=256, mount_point="/mnt/Büro und Lager")
XFS = Volume("files", "xfs", mebibytes=320, mount_point="/mnt/files")


def read_device(path):
    return pathlib.Path(path).read_bytes()


def copy_snapshot(snapshot, path):
    """Copies a snapshot. In the copy, the extents of files can be found whether or not the snapshot is
    mounted."""
    subprocess.run(["cp", "--sparse=always", snapshot, path], check=True)
    return path


def fill_tree(root, seed):
    """Creates some files of random content, and removes some."""
    numbers = random.Random(seed)
    for number in range(20):
        path = pathlib.Path(root, f"folder {number % 3}", f"file {numbers.randrange(40)}")
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(numbers.randbytes(numbers.randrange(200_000)))
    for path in sorted(pathlib.Path(root).glob("*/file *"))[::7]:
        path.unlink()


def read_record(path, units):
    """The units that a CoW file's table marks, and the count of changes in its header."""
    content = pathlib.Path(path).read_bytes()[:UNIT + 8 * units]
    magic, changed = struct.unpack_from("<I52xQ", content)
    assert magic == 4776
    marks = struct.unpack_from(f"<{units}Q", content, UNIT)
    return {unit for unit, mark in enumerate(marks) if mark}, changed


def check_writable(mount_point):
    """Checks that a file can be written within the promised time. If the file system is frozen, thaws it, so
    that the tests can go on."""
    probe = mount_point / "probe"
    writer = subprocess.Popen(["dd", "if=/dev/urandom", f"of={probe}", "bs=4k", "count=1", "conv=fsync",
                               "status=none"])
    try:
        assert writer.wait(WRITABLE_SECONDS) == 0
    except subprocess.TimeoutExpired:
        subprocess.run(["fsfreeze", "--unfreeze", mount_point], check=False)
        writer.wait(SECONDS)
        raise AssertionError(f"{mount_point} is frozen") from None
    probe.unlink()


class SnapshotSite(Resource):
    """Volumes with small CoW files. At the end, everything that the driver keeps is removed."""

    def __init__(self, volumes=(EXT4, XFS)):
        super().__init__()
        self._site = Site(volumes)

    def open(self, stack):
        stack.enter_context(self._site)
        BASE.mkdir(parents=True, exist_ok=True)
        self.set_cow_size(COW_MIB)
        stack.callback(self.forget_snapshots)

    def __getitem__(self, name):
        return self._site.disk[name]

    @property
    def names(self):
        return [partition.name for partition in self._site.disk]

    @property
    def udisks(self):
        return self._site.udisks

    def mount_point(self, name):
        return pathlib.Path(self[name].volume.mount_point)

    def set_cow_size(self, mebibytes):
        CONFIG.write_text(json.dumps(
            {f"volumes.{partition.uuid}.cowFileSizeMiB": mebibytes for partition in self._site.disk}))

    def session(self, *names, incremental=True):
        return Session([self[name] for name in names or self.names], incremental)

    def run_session(self, *names, incremental=True, outcome="success"):
        """Runs a whole session; returns its facts at the start and at the end."""
        with self.session(*names, incremental=incremental) as session:
            return session.start(), session.end(outcome)

    @staticmethod
    def states():
        """The states of all devices of the driver."""
        return [device["state"] for device in driver.info()["devices"]]

    def own_files(self, name):
        """The files of the driver and the agent on a volume."""
        return sorted(path.name for path in self.mount_point(name).glob(".tolvu*"))

    def check_clean(self):
        """Checks that no session is under way, and that sessions have left nothing but the files for
        tracking."""
        assert nodes() == []
        assert mounts() == []
        # udev may have a device open that is about to go: it goes when its last user closes it.
        wait_until(lambda: images_on(STORE) == {}, SECONDS, "captures detached")
        assert not MOUNT_ROOT.exists() or list(MOUNT_ROOT.iterdir()) == []
        assert set(self.states()) <= {2}
        self._check_kept(len(self.states()))

    @staticmethod
    def _check_kept(devices):
        """The driver's objects for tracked devices: a capture of each, or layers."""
        is_logical = are_volumes_logical()
        assert len(list(STORE.glob("*.img"))) == (0 if is_logical else devices)
        assert not is_logical or len(layers()) == LogicalVolumes.layers_tracking * devices

    def check_writable(self, name):
        check_writable(self.mount_point(name))

    def forget_snapshots(self):
        """Removes all state, as if there had never been a driver."""
        drop_snapshots()
        for path in STORE.iterdir():
            path.unlink()
        driver.end_session()
        shutil.rmtree(MOUNT_ROOT, ignore_errors=True)

    @contextlib.contextmanager
    def restarted_machine(self):
        """The driver as it is after a restart of the machine, with its tool where the reload scripts look for
        it."""
        shutil.rmtree(STATUS)
        with tempfile.TemporaryDirectory(dir="/run") as tools:
            shutil.copy(program("tolvuctl"), tools)
            subprocess.run(["mount", "-t", "overlay", "-o", f"lowerdir={tools}:/usr/bin", "overlay",
                            "/usr/bin"], check=True)
            try:
                yield
            finally:
                subprocess.run(["umount", "--lazy", "/usr/bin"], check=True) # it runs from there itself


def recover(site, incremental):
    """Runs the next backups after a killed one: at most one of them may fail."""
    for _ in range(2):
        with site.session(incremental=incremental) as session:
            try:
                session.start()
                return session.end("success")
            except SessionError as error:
                failure = f"{error}\n{session.log}"
                try:
                    session.end("failure")
                except SessionError:
                    pass # the device doesn't exist any more
    raise AssertionError(failure)
