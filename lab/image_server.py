"""The common part of the lab's image servers: images that are poisoned at first, and ways to make a server
fail.

    with SomeServer() as server:
        image = server.add_image("data", 1 << 30)
        image.path, image.request_keys()
        before = image.writes()
        ...
        (image.writes() - before).commands

The images, and what was written to them, survive kill() and restart(); they are removed with the server.
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
    """The number of commands that have written data, and the number of bytes written."""

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
    """One process that serves the images below `directory`; on XFS the poison costs no room. An image has a
    `path` and `writes()`; `request_keys()` returns the keys that name it in a backup request."""

    interface = None # the name of the transport in a backup request

    def __init__(self, port, directory):
        super().__init__()
        self.port = port
        self.images = []
        self.directory = None
        self._parent = directory

    @property
    def portal(self):
        return f"{ADDRESS}:{self.port}"

    def open(self, stack):
        self.directory = self.make_directory(stack, "images-", self._parent)

    @staticmethod
    def make_directory(stack, prefix, parent):
        """Makes a temporary directory that is removed with the server."""
        return pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix=prefix, dir=parent)))

    def add_image(self, name, size, *, poisoned=True, **options):
        """Adds an image of `size` bytes. Its file is full of poison, and lasts until the server ends. If
        `poisoned` is false, for images too large to be filled, the file is sparse. `options` depend on the
        kind of server."""
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
        """Makes an image of an existing file, and exports it to those who may access it."""
        raise NotImplementedError

    def fetch(self, image):
        """Updates the image's file with the content of the image, if that is stored elsewhere."""

    def sessions(self):
        """The number of sessions that are being served."""
        raise NotImplementedError

    def save_write_counters(self):
        """Saves the counters of the images that would be lost when the server process is killed."""

    def writes(self):
        """The writes to all images together."""
        return sum((image.writes() for image in self.images), Writes())

    def all_threads(self):
        return set(pathlib.Path("/proc", str(self.pid), "task").iterdir())

    def pause(self):
        """Suspends the server: nothing is answered until resume(). Returns when all its threads have
        stopped."""
        if not self._halt():
            self.check_running()

    def _halt(self):
        """Suspends the server; returns True when it has stopped, or False if it has ended."""
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
        """Ends the server at once, as a crash of the appliance does. The counters of writes are kept."""
        if self._process is None:
            return
        if self._halt():
            self.save_write_counters()
        self._process.kill()
        self._process.wait(SECONDS)
        self._process = None
        self._log.close()

    def restart(self):
        """Starts the server again with the same images under the same names; kills it first if it is up."""
        self.kill()
        return self.start()


def address_of(image):
    """(address, secret) of an image, in the form that bek-restore takes."""
    keys = image.request_keys()
    secret = keys["password"]
    if "username" not in keys:
        return f"zephane://{keys['target']}/{keys['name']}/{keys['lun']}", secret
    user = f"{keys['username']}@" if keys["username"] else ""
    return f"iscsi://{user}{keys['target']}/{keys['name']}/{keys['lun']}", secret
