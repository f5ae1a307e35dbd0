"""Volumes, each with an image on a server, and backups of them by a daemon.

    with Site() as site, Target() as target, Daemon() as daemon, Appliance(...) as appliance:
        protection = Protection(appliance, daemon, target, [site.disk["data"]])
        backup = protection.run(full=True)
        assert backup.state == "finished", backup.log
        protection.verify()
"""
import dataclasses
import pathlib

from lab import snapshot_copies
from lab.appliance_client import volume
from lab.driver import OWN_FILES, STORE, stored_state
from lab.images import ImageError, compare_used, fsck, mounted, tree_hashes
from lab.logical_disk import are_volumes_logical

SECONDS = 300
COW_MIB = 100
NODES = "/sys/class/block"
SECTOR = 512
LEAST = 10 << 20 # a smaller image has no checksum
ROOMY = 5 << 29 # bytes: a volume of this size has room for two CoW files of the agent's default size
RUN_ENDS = ("Backup run finished", "Exception occurred during backup run: ",
            "Unknown exception occurred during backup run")


def size_of(partition):
    """Bytes of a volume's device."""
    return int(pathlib.Path(NODES, pathlib.Path(partition.device).name, "size").read_text()) * SECTOR


def capture_of(partition):
    """A file with the content of the volume at its last snapshot."""
    if are_volumes_logical():
        return snapshot_copies.snapshot_copy_of(partition)
    return next(STORE / f"{device['snapshot']}.img" for device in stored_state()["devices"]
                if device["block_device"] == partition.device)


class Backup:
    """One backup, from the moment when the agent accepted it."""

    def __init__(self, appliance, daemon, identifier, begin, names):
        self._appliance = appliance
        self._daemon = daemon
        self._begin = begin
        self._names = names
        self.id = identifier

    @property
    def log(self):
        """The log of the daemon since the backup began."""
        return self._daemon.log[self._begin:]

    @property
    def has_ended(self):
        """Whether the backup's thread has ended. The status may show the outcome before that."""
        return any(end in self.log for end in RUN_ENDS)

    @property
    def status(self):
        """The status from the agent. Asking for it also keeps a backup alive."""
        answer = self._appliance.status(self.id)
        assert answer.status == 200, answer
        return answer.content

    @property
    def state(self):
        """"active", "finished" or "failed"."""
        return self.status["status"]

    def volume(self, name):
        """The entry of a volume in the status."""
        return next(entry for entry in self.status["details"] if self._names[entry["volume"]] == name)

    def type(self, name):
        """The type of backup that the agent chose for the volume: "full", "differential" or "incremental"."""
        return self.volume(name)["type"]

    def bytes(self, name):
        """How many bytes of a volume have been sent, or compared."""
        return self.volume(name)["transfer"]["bytesTransferred"]

    def wait(self, seconds=SECONDS, progress=None):
        """Waits until the backup's thread has ended. Asks for the status meanwhile, as an appliance does."""
        def ended():
            has_ended = self.has_ended # read before the status, so that the status is the last one
            status = self.status
            if progress:
                progress(status)
            return has_ended
        self._daemon.wait_for(ended, "the end of the backup", seconds)
        return self

    def wait_for_log(self, text, seconds=SECONDS):
        self._daemon.wait_for(lambda: text in self.log, f"{text!r} in the log", seconds)
        return self

    def cancel(self):
        answer = self._appliance.cancel(self.id)
        assert answer.content == {"success": True, "errorString": ""}, answer


@dataclasses.dataclass(frozen=True)
class Proof:
    """How many blocks and files of an image have been verified."""

    blocks: int = 0
    files: int = 0 # of all kinds, directories too

    def __add__(self, other):
        return Proof(self.blocks + other.blocks, self.files + other.files)


class Protection:
    """Volumes and their images on a target, which can be any ImageServer. With an `offset` in bytes, a volume
    begins that far inside its image. `image` is an existing image for all volumes; without it, each volume
    gets its own, made with `options`."""

    def __init__(self, appliance, daemon, target, partitions, *, offset=0, image=None, **options):
        self.appliance = appliance
        self.daemon = daemon
        self.target = target
        self.offset = offset
        self.partitions = {partition.name: partition for partition in partitions}
        self.images = {name: image or self._add_image(partition, options)
                       for name, partition in self.partitions.items()}
        self.excluded_files = OWN_FILES # names of files that the comparison of blocks leaves out
        self.scripts = [snapshot_copies.install()] if are_volumes_logical() else []
        small = [name for name, partition in self.partitions.items() if size_of(partition) < ROOMY]
        if small:
            self.set_cow_size(COW_MIB, *small)

    def _add_image(self, partition, options):
        size = self.offset + max(size_of(partition), LEAST)
        return self.target.add_image(partition.name, size, **options)

    def set_cow_size(self, mebibytes, *names):
        """Sets the CoW file size of the next snapshots. The agent's default takes half of a small volume,
        which leaves no room for a second CoW file; see tests/functional/test_backup_room.py."""
        options = {f"volumes.{self.partitions[name].uuid}.cowFileSizeMiB": mebibytes
                   for name in names or self.partitions}
        answer = self.appliance.set_config(options)
        assert answer.status == 200, answer

    def request(self, *names, **changes):
        """The volumes of a backup request: those that are named, or all. `changes` apply to each volume."""
        scripts = [*self.scripts, *changes.pop("scripts", ())]
        return [volume(**({"guid": self.partitions[name].uuid, "offset": self.offset, "scripts": scripts}
                          | self.images[name].request_keys() | changes))
                for name in names or self.partitions]

    def start(self, *names, volumes=None, **kind):
        """Starts a backup, incremental unless `full` or `merge` is true."""
        def request():
            answer = self.appliance.backup(volumes or self.request(*names),
                                           **{"interface": self.target.interface} | kind)
            assert answer.status == 201, answer
            return answer.content
        return self.started_by(request)

    def started_by(self, request):
        """The backup that the function `request` starts, by any means; it returns the backup's ID."""
        begin = len(self.daemon.log)
        identifier = request()
        uuids = {partition.uuid: name for name, partition in self.partitions.items()}
        return Backup(self.appliance, self.daemon, identifier, begin, uuids)

    def run(self, *names, **kind):
        """Runs a backup to its end, whatever its outcome."""
        return self.start(*names, **kind).wait()

    def verify(self, *names):
        """Checks that each image holds what the volume held at its last snapshot: the file system's own tool
        finds no error, and every used block and every file is equal. Raises ImageError if not; returns how
        much was compared."""
        return sum((self._verify(name) for name in names or self.partitions), Proof())

    @staticmethod
    def capture_of(partition):
        """A file with the content of the volume at its last snapshot."""
        return capture_of(partition)

    def _verify(self, name):
        partition, image = self.partitions[name], self.images[name]
        self.target.fetch(image)
        file_system = partition.volume.file_system
        capture = self.capture_of(partition)
        fsck(image.path, file_system, self.offset)
        compared = compare_used(capture, image.path, file_system, self.offset, self.excluded_files).check()
        with mounted(capture, file_system) as then, mounted(image.path, file_system, self.offset) as now:
            files = tree_hashes(then)
            if files != tree_hashes(now):
                raise ImageError(f"{image.path}: not the files that {name} had")
        return Proof(compared.blocks, len(files))
