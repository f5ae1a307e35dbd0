"""The testbed for races of whole backups: volumes, a target, and a daemon that copies them to it."""
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
from lab.agent_state import appliance_of, clean_agent_state
from lab.appliance_client import DEVICE, volume
from lab.commands import run
from lab.daemon import Daemon
from lab.driver import STORE
from lab.filesystems import kind_of
from lab.loops import attached
from lab.mounts import mounted
from lab.resources import Resource
from lab.services import wait_until
from lab.site import Site
from lab.snapshots import drop_snapshots
from lab.targets import Target
from lab.usage import status_number
from lab.volumes import Volume

SECONDS = 3600
POLL_SECONDS = 1
SNAPSHOT_SECONDS = 0.1
COPYING = "Beginning copying volume"
BEGUN = "Backup run beginning"
ENDED = "Backup run finished"
STAMP = r"^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) .*?"
PHASE = re.compile(STAMP + r"(Beginning|Finished) execution of the (.+) phase\.$", re.MULTILINE)
WHOLE = re.compile(STAMP + f"(?:{BEGUN}|{ENDED})", re.MULTILINE)


def whole_in(log):
    """The seconds of a backup, from its beginning to its end."""
    begin, end = map(datetime.datetime.fromisoformat, WHOLE.findall(log))
    return (end - begin).total_seconds()


def phases_in(log):
    """The seconds of each phase. If a phase ran several times, as for each volume, they are added up."""
    begun, taken = {}, {}
    for stamp, word, name in PHASE.findall(log):
        when = datetime.datetime.fromisoformat(stamp)
        if word == "Beginning":
            begun[name] = when
        else:
            taken[name] = taken.get(name, 0) + (when - begun[name]).total_seconds()
    return taken


@dataclasses.dataclass(frozen=True)
class Run:
    """One backup, seen from outside. Processor seconds are those of the daemon and of the target during the
    copy only: the stand-in driver takes its snapshots within the daemon."""

    kind: str
    whole: float
    phases: dict
    bytes: int
    written: int
    own_cpu: float
    target_cpu: float

    @property
    def copy(self):
        """The seconds of the phase that copies the blocks."""
        return self.phases["Copy Chunk Ranges"]

    @property
    def volume(self):
        """The seconds of all that is done for the volumes after their snapshots were taken."""
        return sum(seconds for name, seconds in self.phases.items() if name.startswith("Copy Volume"))


class Testbed(Resource):
    """Volumes, an image for each, and a paired daemon. Big files are stored below `directory`, and the images
    below `images`; the images are sparse unless they are `poisoned`."""

    def __init__(self, directory, gibibytes, *, file_system="ext4", images=None, poisoned=True, volumes=1):
        super().__init__()
        self._names = [f"data{number}" for number in range(volumes)]
        self._file_system = file_system
        self._directory = directory
        self._image_directory = images
        self.size = gibibytes << 30
        self._poisoned = poisoned
        self._pause = threading.Event()

    def open(self, stack):
        self.place = pathlib.Path(stack.enter_context(
            tempfile.TemporaryDirectory(prefix="copy-", dir=self._directory)))
        (self.place / "store").mkdir()
        stack.enter_context(mounted(self.place / "store", STORE, "bind", "none"))
        self._make_volumes(stack)
        self.target = stack.enter_context(Target(directory=self._image_directory or self.place))
        self.images = [self.target.add_image(name, self.size, poisoned=self._poisoned)
                       for name in self._names]
        stack.callback(drop_snapshots) # also those of a backup that has been killed
        self._start_daemon(stack)

    def use(self, target, image):
        """Sends later backups to this target and image."""
        self.target, self.images = target, [image]

    @property
    def partition(self):
        """The only partition, or the first one."""
        return self.partitions[0]

    @property
    def image(self):
        """The image of that partition."""
        return self.images[0]

    @property
    def roots(self):
        return [pathlib.Path(partition.volume.mount_point) for partition in self.partitions]

    def _make_volumes(self, stack):
        volumes = [Volume(name, self._file_system, self.size >> 20, mount_point=f"/mnt/{name}",
                          options=kind_of(self._file_system).quiet_options) for name in self._names]
        site = stack.enter_context(Site(volumes, token=f"copy{os.getpid()}", directory=self.place))
        # The image stands for a disk: through a second page cache, its holes would be read at a tenth of the
        # speed.
        run("losetup", "--direct-io=on", site.disk.device)
        self.partitions = list(site.disk)

    def _start_daemon(self, stack):
        authority = stack.enter_context(clean_agent_state(key_type="rsa"))
        self.daemon = stack.enter_context(Daemon(foreground=False)).wait_until_ready()
        self._appliance = stack.enter_context(appliance_of(authority, seconds=SECONDS))
        assert self._appliance.pair(DEVICE).is_success
        table = (self.size // 4096 * 8 >> 20) + 1
        sizes = {f"volumes.{partition.uuid}.cowFileSizeMiB": max(100, table) for partition in self.partitions}
        assert self._appliance.set_config(sizes).is_success

    def settle(self):
        """Waits until all earlier writes are on the disk."""
        subprocess.run(["sync", "--file-system", self.place], check=True)

    @property
    def capture(self):
        """The file with the content of the last snapshot, sparse where it is zero: the driver has kept it, to
        compare the next snapshot with it."""
        [capture] = STORE.glob("*.img")
        return capture

    @contextlib.contextmanager
    def last_snapshot(self):
        """A device that shows the last snapshot again, in the same way as the driver did."""
        with attached(self.capture) as device:
            yield device

    def backup(self, portal=None, chosen=slice(None), **options):
        """Runs a backup of the chosen volumes to its end. `portal` is one that leads to the target's."""
        self.settle()
        shown, written = len(self.daemon.log), self.target.writes()
        elsewhere = {"target": portal} if portal else {}
        volumes = [volume(partition.uuid, **(image.request_keys() | elsewhere))
                   for partition, image in list(zip(self.partitions, self.images))[chosen]]
        answer = self._appliance.backup(volumes, interface=self.target.interface, **options)
        assert answer.is_success, answer
        self._await_snapshot(answer.content, shown)
        own, other = self._own_cpu(), processor_seconds(self.target.pid)
        status = self._follow(answer.content)
        details = status["details"]
        # The status shows the volumes as done before their snapshots have ended.
        self.daemon.wait_for(lambda: ENDED in self.daemon.log[shown:], "end of the backup", SECONDS)
        wait_until(lambda: not self.target.sessions(), SECONDS, "the engine of the image gone")
        log = self.daemon.log[shown:]
        return Run(details[0]["type"], whole_in(log), phases_in(log),
                   sum(detail["transfer"]["bytesTransferred"] for detail in details),
                   (self.target.writes() - written).bytes,
                   self._own_cpu() - own, processor_seconds(self.target.pid) - other)

    def _await_snapshot(self, identifier, shown):
        while COPYING not in self.daemon.log[shown:] and self._status(identifier)["status"] == "active":
            self._pause.wait(SNAPSHOT_SECONDS)

    def _status(self, identifier):
        return self._appliance.status(identifier).content

    def _follow(self, identifier):
        """Polls as often as appliances do, because each answer takes the daemon's time."""
        while (status := self._status(identifier))["status"] == "active":
            self._pause.wait(POLL_SECONDS)
        if status["status"] != "finished":
            raise RuntimeError(f"the backup has {status['status']}:\n{self.daemon.log}")
        return status

    def _own_cpu(self):
        return processor_seconds(self.daemon.pid)

    def peak_mebibytes(self):
        """The daemon's peak memory since its start."""
        return status_number(self.daemon.pid, "VmHWM") / 1024
