"""A whole site on one machine: the services that the agent asks, and volumes for it to back up.

    with Site() as site:                 # inside lab/namespace
        site.disk["data"].device, .uuid

`lab/site` brings one up in namespaces of its own, and keeps it there until it is taken down.
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
from lab.services import LoginManager, SystemBus, UdevDaemon, Udisks
from lab.stay import Stay
from lab.volumes import Volume

MOUNTS = pathlib.Path("/mnt")
TABLE = pathlib.Path("/run/lab/volumes")
INSIDE = "inside" # its namespaces, with nothing in them yet
READY = "ready"
PAIRED = "paired"
ROOMY = 3072 # mebibytes of a volume on which two CoW files of the default size fit, as a second backup needs

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


class Site(Stay):
    """System bus, login manager, udev, udisks and one disk. `token` marks what the whole machine can see, and
    the disk's image lies in `directory`."""

    def __init__(self, volumes=VOLUMES, token="site", directory="/tmp"):
        super().__init__()
        self.bus = SystemBus()
        self.udisks = Udisks()
        self.disk = disk_of(volumes, token, directory)

    def open(self, lasting):
        require_private_site()
        # Nothing of the machine's is there, and nothing stays there.
        lasting.enter_context(mounted("tmpfs", MOUNTS, "mode=755", "tmpfs"))
        for part in self._parts():
            lasting.enter_context(part)

    def _parts(self):
        """Where volumes are logical, this is a machine of the lab's, with services of its own."""
        if are_volumes_logical():
            return [self.disk]
        return [self.bus, LoginManager(), UdevDaemon(), self.disk, self.udisks]

    def table(self):
        """The volumes in lines, for people."""
        rows = [("name", "device", "type", "UUID", "mounted at")]
        rows += [(partition.name, partition.device, partition.volume.file_system, partition.uuid,
                  partition.volume.mount_point) for partition in self.disk]
        widths = [max(map(len, column)) for column in zip(*rows)]
        return "".join("  ".join(map(str.ljust, row, widths)).rstrip() + "\n" for row in rows)


def reap():
    """The first process of a namespace inherits those whose parents have ended."""
    with contextlib.suppress(ChildProcessError):
        while os.waitpid(-1, os.WNOHANG)[0]:
            pass


def hold(token, *extras):
    """Keeps a site up, as the first process of its namespaces, until it is killed: there is one way to end,
    and the kernel does the work."""
    signal.signal(signal.SIGCHLD, lambda *_: None) # or the kernel drops it before it can be waited for
    with Site(token=token) as site, contextlib.ExitStack() as lasting:
        text = site.table()
        if PAIRED in extras:
            text += lasting.enter_context(Paired(site)).description()
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
    if sys.stdin.readline() != "go\n": # whoever starts a site notes first whom to end
        sys.exit("the starter has gone")
    hold(*sys.argv[1:])
