"""A server of the transport `zephaneftp` for the lab: zephaned, with one engine for each image.

    with ZephaneServer() as server:
        image = server.add_image("data", 1 << 30)
        server.portal, image.name, image.lun, image.secret, image.path
        image.writes(), image.holes()

Each engine is an nbdkit that logs every request. zephaned starts it with the first session of its image, and
stops it with the last. image_server.py has what all servers of images can do.
"""
import collections
import contextlib
import json
import os
import pathlib
import re
import secrets
import signal

from lab.daemon import program
from lab.image_server import SECONDS, ImageServer, Writes
from lab.services import wait_until

PORT = 25568
FIRST_VOLUME_ID = 2**63 # so large that none fits a SCSI LUN
READY = "ready\n"
RELOADED = "the configuration has been read again\n"
REQUEST = re.compile(r" connection=(\d+) (\.{3})?(Read|Write|Zero|Trim|Flush) id=(\d+)(.*)")
EXTENT = re.compile(r" offset=0x([0-9a-f]+) count=0x([0-9a-f]+)")

Request = collections.namedtuple("Request", "kind offset bytes")


class Image:
    """An image and its engine. `name` is the image's path in requests, `lun` is its volume ID."""

    def __init__(self, server, path, lun, backend):
        self._server = server
        self.name = path.name
        self.lun = lun
        self.path = path
        self.secret = secrets.token_urlsafe(32)
        self.backend = backend

    def request_keys(self):
        """The keys that name the image in a backup request."""
        return {"target": self._server.portal, "name": self.name, "lun": self.lun, "password": self.secret}

    def requests(self):
        """The requests that the engine has completed, in order. Failed requests are left out."""
        with contextlib.suppress(FileNotFoundError): # the engine has never been started
            return list(done_requests(log_of(self.path).read_text(encoding="utf-8").splitlines()))
        return []

    def writes(self):
        """The requests that wrote data."""
        return self._sum("Write")

    def holes(self):
        """The requests that made holes."""
        return self._sum("Zero", "Trim")

    def _sum(self, *kinds):
        sizes = [request.bytes for request in self.requests() if request.kind in kinds]
        return Writes(len(sizes), sum(sizes))

    def engine(self):
        """The PID of the image's engine, or None."""
        return next((pid for pid in self._server.engines() if str(self.path) in command_of(pid)), None)


def log_of(path):
    """The path of the log where an image's engine writes its requests."""
    return path.with_name(f"{path.name}.log")


def done_requests(lines):
    """Yields the completed requests. Request numbers are unique within a connection, connection numbers
    within an engine."""
    begun = {}
    for found in filter(None, map(REQUEST.search, lines)):
        connection, is_end, kind, number, rest = found.groups()
        if not is_end:
            extent = EXTENT.match(rest)
            begun[connection, number] = Request(kind, *(int(digits, 16) for digits in extent.groups())) \
                if extent else Request(kind, 0, 0)
        elif rest == " return=0":
            yield begun.pop((connection, number))


def command_of(pid):
    """The words of a process's command line; empty if the process has ended."""
    with contextlib.suppress(FileNotFoundError, ProcessLookupError):
        words = pathlib.Path("/proc", str(pid), "cmdline").read_text(encoding="utf-8").split("\0")
        return [word for word in words if word]
    return []


def children_of(thread):
    with contextlib.suppress(FileNotFoundError, ProcessLookupError): # it may have ended
        return list(map(int, (thread / "children").read_text(encoding="ascii").split()))
    return []


class ZephaneServer(ImageServer):
    """One zephaned. `options` are additional arguments for the engines of the images, such as filters that
    cause faults."""

    interface = "zephaneftp"

    def __init__(self, port=PORT, directory="/tmp", *, options=(), compression=True):
        super().__init__(port, directory)
        self.options = options
        self._compression = compression
        self._run = None

    @property
    def configuration(self):
        return self._run / "zephaned.json"

    @property
    def command(self):
        return (str(program("zephaned")), "--config", str(self.configuration))

    def open(self, stack):
        super().open(stack)
        self._run = self.make_directory(stack, "zephaned-", "/run")
        stack.callback(self.stop)
        self.start()

    def prepare(self):
        images = [{"path": image.name, "volumeId": image.lun, "secret": image.secret,
                   "backend": image.backend} for image in self.images]
        content = {"listen": [self.portal], "runtimeDirectory": str(self._run / "engines"),
                   "compression": self._compression, "images": images}
        new = self.configuration.with_suffix(".new")
        with open(os.open(new, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600), "w", encoding="utf-8") as file:
            json.dump(content, file)
        new.replace(self.configuration)

    def is_ready(self):
        return READY in self.output

    def serve(self, path, *, backend=None):
        """Adds an image. `backend` replaces the engine that would serve the image's file."""
        engine = ["--filter=log", "file", str(path), f"logfile={log_of(path)}", "logappend=true",
                  *self.options]
        return Image(self, path, FIRST_VOLUME_ID + len(self.images), backend or engine)

    def add_image(self, name, size, **options):
        image = super().add_image(name, size, **options)
        self.reload()
        return image

    def reload(self):
        """Makes the server load the changed list of images."""
        seen = self.output.count(RELOADED)
        self.prepare()
        self._process.send_signal(signal.SIGHUP)
        wait_until(lambda: self.output.count(RELOADED) > seen, SECONDS, "the images reloaded")

    def engines(self):
        """The PIDs of the engines; none while the server is down."""
        if self._process is None:
            return []
        return [pid for thread in self.all_threads() for pid in children_of(thread)]

    def sessions(self):
        """The number of images in use."""
        return len(self.engines())

    def stop(self):
        if self._process is not None:
            self.resume() # a suspended server wouldn't see SIGTERM
        super().stop()

    def kill(self):
        """Kills the server; its engines end with it."""
        engines = self.engines()
        super().kill()
        wait_until(lambda: not any(map(command_of, engines)), SECONDS, "the engines gone")
