"""An iSCSI target for the lab: tgtd, with images in files that are poisoned at first.

    with Target(port=3260) as target:
        image = target.add_image("data", 1 << 30)
        target.portal, target.name, image.lun, image.path
        before = image.writes()
        ...
        (image.writes() - before).commands

The images, and what was written to them, outlive kill() and restart(); they go with the target. What tgtd has
been given is in the files, in the kernel's memory, at once: that it is killed loses nothing.
"""
import contextlib
import dataclasses
import os
import pathlib
import signal
import socket
import tempfile

from lab import poison
from lab.commands import run
from lab.services import Service, ServiceError, wait_until

SECONDS = 20
ADDRESS = "127.0.0.1"
NAME = "iqn.2026-01.example:images"
TARGET = "1" # the number of the only target of each tgtd
STOPPED = "T"


@dataclasses.dataclass(frozen=True)
class Writes:
    """SCSI commands that have written, and how much."""

    commands: int = 0
    bytes: int = 0

    def __add__(self, other):
        return Writes(self.commands + other.commands, self.bytes + other.bytes)

    def __sub__(self, other):
        return Writes(self.commands - other.commands, self.bytes - other.bytes)


class Image:
    """A disk of the target. `thin` ones can be told that blocks are unused (UNMAP)."""

    def __init__(self, target, name, lun, block_size, thin):
        self._target = target
        self.name = name
        self.lun = lun
        self.block_size = block_size
        self.thin = thin
        self.path = target.directory / name
        self.threads = set()
        self._earlier = Writes()

    def writes(self):
        """What has been written to the image since it was added, by the commands that have been answered.

        tgtd has threads for each image that do nothing but its input and output, a write system call for each
        command that writes, so the kernel's accounts of these threads are exact. What tgtd itself counts is
        forgotten when the initiator logs out."""
        return sum((writes_of(thread) for thread in self._target.threads(self)), self._earlier)

    def settle_accounts(self):
        """The threads are going to end."""
        self._earlier = self.writes()
        self.threads = set()


def writes_of(thread):
    lines = (thread / "io").read_text(encoding="ascii").splitlines()
    account = dict(line.split(": ") for line in lines)
    return Writes(int(account["syscw"]), int(account["wchar"]))


def is_stopped(thread):
    with contextlib.suppress(OSError): # it may be ending
        return (thread / "stat").read_text(encoding="ascii").rpartition(")")[2].split()[0] == STOPPED
    return False


class Target(Service):
    """One tgtd with one target. The images lie below `directory`; on XFS their poison costs no room."""

    def __init__(self, port=3260, name=NAME, directory="/tmp"):
        super().__init__()
        self.port = port
        self.name = name
        self.images = []
        self.directory = None
        self._parent = directory
        self._accounts = {}
        self._control = None

    @property
    def portal(self):
        return f"{ADDRESS}:{self.port}"

    @property
    def command(self):
        return ("env", f"TGT_IPC_SOCKET={self._control}", "tgtd", "-f", "--iscsi", f"portal={self.portal}")

    def open(self, lasting):
        made = tempfile.TemporaryDirectory
        self.directory = pathlib.Path(lasting.enter_context(made(prefix="images-", dir=self._parent)))
        self._control = pathlib.Path(lasting.enter_context(made(prefix="tgtd-", dir="/run")), "control")
        lasting.callback(self.kill)
        self.start()

    def prepare(self):
        for path in self._control.parent.iterdir():
            path.unlink()
        with socket.create_server((ADDRESS, self.port)):
            pass # or tgtd would go on without its portal

    def is_ready(self):
        with contextlib.suppress(OSError):
            return self.portal in self._administer("show", "portal")
        return False

    def start(self):
        super().start()
        self._administer("new", "target", "--tid", TARGET, "--targetname", self.name)
        self._administer("bind", "target", "--tid", TARGET, "--initiator-address", "ALL")
        for user, password in self._accounts.items():
            self._add_account(user, password)
        for image in self.images:
            self._add_unit(image)
        return self

    def _administer(self, operation, mode, *arguments):
        return run("tgtadm", "--lld", "iscsi", "--op", operation, "--mode", mode, *arguments,
                   env={**os.environ, "TGT_IPC_SOCKET": str(self._control)})

    def add_image(self, name, size, block_size=512, *, thin=False, poisoned=True):
        """Adds a disk of `size` bytes. Its file is there, all poison, until the target goes; without
        poison, for disks too large to be filled, it is a hole."""
        image = Image(self, name, len(self.images) + 1, block_size, thin) # 0 is tgtd's own
        if poisoned:
            poison.make_image(image.path, size)
        else:
            with open(image.path, "xb") as file:
                file.truncate(size)
        self._add_unit(image)
        self.images.append(image)
        return image

    def _add_unit(self, image):
        others = self._all_threads()
        unit = ("--tid", TARGET, "--lun", str(image.lun))
        self._administer("new", "logicalunit", *unit, "--backing-store", image.path,
                         "--blocksize", str(image.block_size))
        if image.thin:
            self._administer("update", "logicalunit", *unit, "--params", "thin_provisioning=1")
        image.threads = self._all_threads() - others

    def sessions(self):
        """How many initiators are logged in."""
        return self._administer("show", "conn", "--tid", TARGET).count("Session:")

    def require_chap(self, user, password):
        """From the next login on, initiators have to be this one, or another that was named before."""
        self._accounts[user] = password
        self._add_account(user, password)

    def _add_account(self, user, password):
        self._administer("new", "account", "--user", user, "--password", password)
        self._administer("bind", "account", "--tid", TARGET, "--user", user)

    def writes(self):
        """What has been written to all of the images."""
        return sum((image.writes() for image in self.images), Writes())

    def _all_threads(self):
        return set(pathlib.Path("/proc", str(self.pid), "task").iterdir())

    def threads(self, image):
        """Those that work for an image; none while the target is down."""
        if self._process is None:
            return set()
        if self._has_ended():
            raise self._unexpected_end()
        return image.threads

    def pause(self):
        """Lets initiators wait: nothing is answered until resume(). Returns when all is at a standstill."""
        if not self._halt():
            raise self._unexpected_end()

    def _halt(self):
        """Returns whether tgtd has come to a standstill; if not, it has ended."""
        self._process.send_signal(signal.SIGSTOP)
        wait_until(lambda: self._has_ended() or all(map(is_stopped, self._all_threads())), SECONDS,
                   "tgtd stopped")
        return not self._has_ended()

    def _has_ended(self):
        return self._process.poll() is not None

    def _unexpected_end(self):
        return ServiceError(f"tgtd has ended with {self._process.returncode}; it printed:\n{self.output}")

    def resume(self):
        self._process.send_signal(signal.SIGCONT)

    def kill(self):
        """Ends tgtd at once, as a crash of the appliance does; there is no other way while it has targets.
        What has been counted is kept; if anything else ends it, that is lost."""
        if self._process is None:
            return
        if self._halt():
            for image in self.images:
                image.settle_accounts()
        self._process.kill()
        self._process.wait(SECONDS)
        self._process = None
        self._log.close()

    stop = kill

    def restart(self):
        """Brings back the same images under the same numbers; ends a target that is up first."""
        self.kill()
        return self.start()
