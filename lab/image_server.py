"""What the lab's servers of images have in common: files that are poison at first, and an appliance's faults.

    with SomeServer() as server:
        image = server.add_image("data", 1 << 30)
        image.path, image.place()
        before = image.writes()
        ...
        (image.writes() - before).commands

The images, and what was written to them, outlive kill() and restart(); they go with the server.
"""
import contextlib
import dataclasses
import pathlib
import signal
import tempfile

from lab import poison
from lab.services import Service, ServiceError, wait_until

SECONDS = 20
ADDRESS = "127.0.0.1"
STOPPED = "T"


@dataclasses.dataclass(frozen=True)
class Writes:
    """Commands that have written, and how much."""

    commands: int = 0
    bytes: int = 0

    def __add__(self, other):
        return Writes(self.commands + other.commands, self.bytes + other.bytes)

    def __sub__(self, other):
        return Writes(self.commands - other.commands, self.bytes - other.bytes)


def is_stopped(thread):
    with contextlib.suppress(OSError): # it may be ending
        return (thread / "stat").read_text(encoding="ascii").rpartition(")")[2].split()[0] == STOPPED
    return False


class ImageServer(Service):
    """One process that serves the images below `directory`; on XFS their poison costs no room. An image has a
    `path` and its `writes()`, and says by `place()` what a backup request calls it."""

    interface = None # what a backup request calls the transport

    def __init__(self, port, directory):
        super().__init__()
        self.port = port
        self.images = []
        self.directory = None
        self._parent = directory

    @property
    def portal(self):
        return f"{ADDRESS}:{self.port}"

    def open(self, lasting):
        self.directory = self.make_directory(lasting, "images-", self._parent)

    @staticmethod
    def make_directory(lasting, prefix, parent):
        """One that goes with the server."""
        return pathlib.Path(lasting.enter_context(tempfile.TemporaryDirectory(prefix=prefix, dir=parent)))

    def add_image(self, name, size, *, poisoned=True, **options):
        """Adds an image of `size` bytes. Its file is there, all poison, until the server goes; without
        poison, for those too large to be filled, it is a hole. Which `options` there are, each kind of server
        says."""
        path = self.directory / name
        if poisoned:
            poison.make_image(path, size)
        else:
            with open(path, "xb") as file:
                file.truncate(size)
        image = self.serve(path, **options)
        self.images.append(image)
        return image

    def serve(self, path, **options):
        """Makes an image of a file that is there, and shows it to who is allowed to see it."""
        raise NotImplementedError

    def fetch(self, image):
        """Brings the file of an image up to what the image holds, where that is kept elsewhere."""

    def sessions(self):
        """How many are being served."""
        raise NotImplementedError

    def settle_accounts(self):
        """For what is told of the images by a process that is going to be killed."""

    def writes(self):
        """What has been written to all of the images."""
        return sum((image.writes() for image in self.images), Writes())

    def all_threads(self):
        return set(pathlib.Path("/proc", str(self.pid), "task").iterdir())

    def pause(self):
        """Lets everybody wait: nothing is answered until resume(). Returns when all is at a standstill."""
        if not self._halt():
            self.check_running()

    def _halt(self):
        """Returns whether the server has come to a standstill; if not, it has ended."""
        self._process.send_signal(signal.SIGSTOP)
        wait_until(lambda: self._has_ended() or all(map(is_stopped, self.all_threads())), SECONDS,
                   f"{type(self).__name__} stopped")
        return not self._has_ended()

    def _has_ended(self):
        return self._process.poll() is not None

    def check_running(self):
        if self._has_ended():
            raise ServiceError(f"{type(self).__name__} has ended with {self._process.returncode}; "
                               f"it printed:\n{self.output}")

    def resume(self):
        self._process.send_signal(signal.SIGCONT)

    def kill(self):
        """Ends the server at once, as a crash of the appliance does. What has been counted is kept."""
        if self._process is None:
            return
        if self._halt():
            self.settle_accounts()
        self._process.kill()
        self._process.wait(SECONDS)
        self._process = None
        self._log.close()

    def restart(self):
        """Brings back the same images under the same names; ends a server that is up first."""
        self.kill()
        return self.start()


def address_of(image):
    """(address, secret) of an image, as bek-restore takes them."""
    place = image.place()
    secret = place["password"]
    if "username" not in place:
        return f"zephane://{place['target']}/{place['name']}/{place['lun']}", secret
    user = f"{place['username']}@" if place["username"] else ""
    return f"iscsi://{user}{place['target']}/{place['name']}/{place['lun']}", secret
