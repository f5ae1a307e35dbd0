"""What the races of whole backups run on: a volume, a target, and a daemon that copies one to the other."""
import contextlib
import dataclasses
import datetime
import os
import pathlib
import re
import subprocess
import tempfile
import threading

from bench.copy.process import processor_seconds
from lab.appliance_client import DEVICE, volume
from lab.commands import run
from lab.daemon import Daemon
from lab.driver import STORE
from lab.filesystems import kind_of
from lab.loops import attached
from lab.machine import appliance_of, new_machine
from lab.mounts import mounted
from lab.services import wait_until
from lab.site import Site
from lab.snapshots import drop_snapshots
from lab.stay import Stay
from lab.targets import Target
from lab.usage import status_number
from lab.volumes import Volume

SECONDS = 3600
POLL_SECONDS = 1
SNAPSHOT_SECONDS = 0.1
COPYING = "Beginning copying volume"
ENDED = "Backup run finished"
LINE = re.compile(r"^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) .*?"
                  r"(Beginning|Finished) execution of the (.+) phase\.$", re.MULTILINE)


def phases_in(log):
    """Seconds of each phase. One that ran several times, as for each volume, counts as a whole."""
    begun, taken = {}, {}
    for stamp, word, name in LINE.findall(log):
        when = datetime.datetime.strptime(stamp, "%Y-%m-%d %H:%M:%S.%f")
        if word == "Beginning":
            begun[name] = when
        else:
            taken[name] = taken.get(name, 0) + (when - begun[name]).total_seconds()
    return taken


@dataclasses.dataclass(frozen=True)
class Run:
    """One backup, as seen from outside. Processor seconds are of the daemon and of the target, and of no more
    than the copy: the driver that stands in for the kernel's takes the snapshots within the daemon."""

    kind: str
    phases: dict
    bytes: int
    written: int
    own_cpu: float
    target_cpu: float

    @property
    def copy(self):
        """Seconds of the phase that moves the blocks."""
        return self.phases["Copy Chunk Ranges"]

    @property
    def volume(self):
        """Seconds of all that is done for a volume once its snapshot is there."""
        return sum(seconds for name, seconds in self.phases.items() if name.startswith("Copy Volume"))

    @property
    def whole(self):
        """Seconds of everything; phases within others aren't counted twice."""
        inner = ("Open Volume I/O", "Create Chunk Range Provider", "Calculate Transfer Size",
                 "Copy Chunk Ranges", "Modify Boot Sector", "Punch Holes")
        return sum(seconds for name, seconds in self.phases.items() if name not in inner)


class Bed(Stay):
    """A volume, an image for it, and a paired daemon. Big files lie below `directory`, the image below
    `images`, as a hole if it isn't `poisoned`."""

    def __init__(self, directory, gibibytes, *, file_system="ext4", images=None, poisoned=True):
        super().__init__()
        self._file_system = file_system
        self._directory = directory
        self._images = images
        self.size = gibibytes << 30
        self._poisoned = poisoned
        self._pause = threading.Event()

    def open(self, lasting):
        self.place = pathlib.Path(lasting.enter_context(
            tempfile.TemporaryDirectory(prefix="copy-", dir=self._directory)))
        (self.place / "store").mkdir()
        lasting.enter_context(mounted(self.place / "store", STORE, "bind", "none"))
        self._make_volume(lasting)
        self.target = lasting.enter_context(Target(directory=self._images or self.place))
        self.image = self.target.add_image("image", self.size, poisoned=self._poisoned)
        lasting.callback(drop_snapshots) # also those of a backup that has been killed
        self._start_daemon(lasting)

    def use(self, target, image):
        """Backups go there from now on."""
        self.target, self.image = target, image

    def _make_volume(self, lasting):
        mebibytes = self.size >> 20
        data = Volume("data", self._file_system, mebibytes, mount_point="/mnt/data",
                      options=kind_of(self._file_system).calm)
        site = lasting.enter_context(Site([data], token=f"copy{os.getpid()}", directory=self.place))
        # The image is a disk: through a second page cache, its holes would be read a tenth as fast.
        run("losetup", "--direct-io=on", site.disk.device)
        self.partition = site.disk["data"]
        self.root = pathlib.Path(self.partition.volume.mount_point)

    def _start_daemon(self, lasting):
        authority = lasting.enter_context(new_machine(key_type="rsa"))
        self.daemon = lasting.enter_context(Daemon(foreground=False)).wait_until_ready()
        self._appliance = lasting.enter_context(appliance_of(authority, seconds=SECONDS))
        assert self._appliance.pair(DEVICE).is_success
        table = (self.size // 4096 * 8 >> 20) + 1
        key = f"volumes.{self.partition.uuid}.cowFileSizeMiB"
        assert self._appliance.set_config({key: max(100, table)}).is_success

    def settle(self):
        """Lets nothing that came before be still on its way to the disk."""
        subprocess.run(["sync", "--file-system", self.place], check=True)

    @contextlib.contextmanager
    def last_snapshot(self):
        """The device that shows the last snapshot again: the driver has kept its bytes, to compare the next
        one with, and has shown them in the same way."""
        [capture] = STORE.glob("*.img")
        with attached(capture) as device:
            yield device

    def backup(self, way=None, **options):
        """Runs a backup to its end. `way` is a portal that leads to that of the target."""
        self.settle()
        shown, written = len(self.daemon.log), self.image.writes()
        place = self.image.place() | ({"target": way} if way else {})
        answer = self._appliance.backup([volume(self.partition.uuid, **place)],
                                        interface=self.target.interface, **options)
        assert answer.is_success, answer
        self._await_snapshot(answer.content, shown)
        own, other = self._own_cpu(), processor_seconds(self.target.pid)
        status = self._follow(answer.content)
        [details] = status["details"]
        # The volume is done before its snapshot has been ended.
        self.daemon.wait_for(lambda: ENDED in self.daemon.log[shown:], "end of the backup", SECONDS)
        wait_until(lambda: not self.target.sessions(), SECONDS, "the engine of the image gone")
        return Run(details["type"], phases_in(self.daemon.log[shown:]),
                   details["transfer"]["bytesTransferred"], (self.image.writes() - written).bytes,
                   self._own_cpu() - own, processor_seconds(self.target.pid) - other)

    def _await_snapshot(self, identifier, shown):
        while COPYING not in self.daemon.log[shown:] and self._status(identifier)["status"] == "active":
            self._pause.wait(SNAPSHOT_SECONDS)

    def _status(self, identifier):
        return self._appliance.status(identifier).content

    def _follow(self, identifier):
        """Asks as often as appliances do: to answer takes the daemon's time."""
        while (status := self._status(identifier))["status"] == "active":
            self._pause.wait(POLL_SECONDS)
        if status["status"] != "finished":
            raise RuntimeError(f"the backup has {status['status']}:\n{self.daemon.log}")
        return status

    def _own_cpu(self):
        return processor_seconds(self.daemon.pid)

    def peak_mebibytes(self):
        """The most memory that the daemon has had since its start."""
        return status_number(self.daemon.pid, "VmHWM") / 1024
