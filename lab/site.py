"""A whole site on one machine: the services that the agent uses, and volumes to back up.

    with Site() as site:                 # inside lab/namespace
        site.disk["data"].device, .uuid

`lab/site` starts a site in namespaces of its own, and keeps it until it is taken down.
"""
import contextlib
import os
import pathlib
import signal
import sys

from lab.daemon import require_private_site
from lab.logical_disk import are_volumes_logical, disk_of
from lab.mounts import mounted
from lab.paired import Paired
from lab.resources import Resource
from lab.services import LoginManager, SystemBus, UdevDaemon, Udisks
from lab.volumes import Volume

MOUNTS = pathlib.Path("/mnt")
TABLE = pathlib.Path("/run/lab/volumes")
INSIDE = "inside" # printed inside the site's namespaces, before anything is in them
READY = "ready"
PAIRED = "paired"
ROOMY = 3072 # MiB of a volume with room for two CoW files of the default size, as a second backup needs

DATA = Volume("data", "ext4", ROOMY, f"{MOUNTS}/data")
FILES = Volume("files", "xfs", ROOMY, f"{MOUNTS}/Büro und Lager")
WINDOWS = Volume("windows", "ntfs", ROOMY, f"{MOUNTS}/windows")
SWAP = Volume("swap", "swap", mebibytes=64)
VOLUMES = (
    DATA,
    FILES,
    WINDOWS,
    Volume("archive", "ext4", fstab="defaults,ro"),
    Volume("spare", "ext4"),
    SWAP,
)


class Site(Resource):
    """System bus, login manager, udev, udisks and one disk. `token` is part of names that the whole machine
    can see; the disk's image is in `directory`."""

    def __init__(self, volumes=VOLUMES, token="site", directory="/tmp"):
        super().__init__()
        self.bus = SystemBus()
        self.udisks = Udisks()
        self.disk = disk_of(volumes, token, directory)

    def open(self, stack):
        require_private_site()
        # The tmpfs hides what the machine has there, and takes all changes.
        stack.enter_context(mounted("tmpfs", MOUNTS, "mode=755", "tmpfs"))
        for part in self._parts():
            stack.enter_context(part)

    def _parts(self):
        """The parts of the site. If volumes are logical, this runs in a machine of the lab, which has its own
        services."""
        if are_volumes_logical():
            return [self.disk]
        return [self.bus, LoginManager(), UdevDaemon(), self.disk, self.udisks]

    def table(self):
        """A table of the volumes, for people."""
        rows = [("name", "device", "type", "UUID", "mounted at")]
        rows += [(partition.name, partition.device, partition.volume.file_system, partition.uuid,
                  partition.volume.mount_point) for partition in self.disk]
        widths = [max(map(len, column)) for column in zip(*rows)]
        return "".join("  ".join(map(str.ljust, row, widths)).rstrip() + "\n" for row in rows)


def reap():
    """Reaps ended processes: the first process of a namespace inherits those whose parents have ended."""
    with contextlib.suppress(ChildProcessError):
        while os.waitpid(-1, os.WNOHANG)[0]:
            pass


def hold(token, *extras):
    """Keeps a site up, as the first process of its namespaces, until it is killed. That is the only way to
    end it, and the kernel cleans up."""
    signal.signal(signal.SIGCHLD, lambda *_: None) # or the kernel discards SIGCHLD, and sigwait misses it
    with Site(token=token) as site, contextlib.ExitStack() as stack:
        text = site.table()
        if PAIRED in extras:
            text += stack.enter_context(Paired(site)).description()
        TABLE.parent.mkdir(exist_ok=True)
        TABLE.write_text(text, encoding="utf-8")
        signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGCHLD})
        print(READY, flush=True)
        while True:
            signal.sigwait({signal.SIGCHLD})
            reap()


if __name__ == "__main__":
    os.umask(0o022)
    print(INSIDE, flush=True)
    if sys.stdin.readline() != "go\n": # the starter first records which process to kill
        sys.exit("the starter has gone")
    hold(*sys.argv[1:])
