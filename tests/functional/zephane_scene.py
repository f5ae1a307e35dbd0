"""Where attacks on the second transport take place: a server, two images, and what has to hold after each."""
import contextlib
import hashlib
import socket

import zephane_wire as wire
from lab.services import wait_until
from lab.stay import Stay
from lab.usage import status_number
from lab.zephane import ZephaneServer
from zephane_peers import Attacker, Image

MIB = 1 << 20
SIZE, OTHER_SIZE = 16 * MIB, 24 * MIB
SECONDS = 20
ENTER_SECONDS = 5
MOST_MEMORY = 256 * 1024 # KiB, of the server; each session has its windows and buffers


def digest(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


class Scene(Stay):
    """Two images of one server, `image` and `other`. What the files hold is known all the time."""

    def open(self, lasting):
        self.server = lasting.enter_context(ZephaneServer())
        self.image, self.other = (self._add(*sizes) for sizes in (("data", SIZE), ("other", OTHER_SIZE)))
        self._known = {}
        self.note_content()

    def _add(self, name, size):
        made = self.server.add_image(name, size)
        return Image(made.name, made.lun, made.secret)

    @property
    def port(self):
        return self.server.port

    def path(self, image):
        return self.server.directory / image.path

    def content(self, image=None):
        return self.path(image or self.image).read_bytes()

    def note_content(self):
        """What the images hold is as it should be."""
        self._known = {image: digest(self.path(image)) for image in (self.image, self.other)}

    def attacker(self, image=None, flags=wire.WRITABLE, **options):
        return Attacker(self.port, image or self.image, flags, **options)

    @contextlib.contextmanager
    def owner(self, image=None, **options):
        """A writer who is in order, and gets in as soon as the one before is gone: (attacker, NBD)."""
        with contextlib.ExitStack() as entered:
            def enter():
                with contextlib.ExitStack() as tried:
                    made = tried.enter_context(self.attacker(image, **options))
                    with contextlib.suppress(BlockingIOError):
                        nbd = made.enter()
                        entered.push(tried.pop_all())
                        return made, nbd
                return None
            yield wait_until(enter, ENTER_SECONDS, "a writer let in")

    def check_standing(self):
        """The server goes on and lets the owner of each image in, with bounded memory; its images are what
        they were."""
        self.server.check_running()
        for image, size in ((self.image, SIZE), (self.other, OTHER_SIZE)):
            with self.owner(image) as (_, nbd):
                assert nbd.size == size
                assert nbd.read(0, 4096) == self.content(image)[:4096]
                nbd.end()
            assert self.path(image).stat().st_size == size
            assert digest(self.path(image)) == self._known[image], f"{image.path} has changed"
        assert self.peak_memory() < MOST_MEMORY

    def peak_memory(self):
        """KiB"""
        return status_number(self.server.pid, "VmHWM")

    def connect(self):
        """Plain TCP."""
        return socket.create_connection(("127.0.0.1", self.port), SECONDS)


def flipped(data, byte, bit):
    """With one bit of one byte turned."""
    return data[:byte] + bytes([data[byte] ^ 1 << bit]) + data[byte + 1:]
