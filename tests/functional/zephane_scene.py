"""Where attacks on the second transport take place: a server, two images, and what has to hold after each."""
import contextlib
import hashlib
import socket

import zephane_wire as wire
from lab.services import wait_until
from lab.stay import Stay
from lab.usage import status_number
from lab.zephane import ZephaneServer
from zephane_nbd import NbdClient
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

    def _admitted(self, image, options):
        """An attacker who has been let in, None if there is another writer."""
        attacker = self.attacker(image, **options)
        verdict = attacker.shake_hands()
        if verdict.code == 0:
            return attacker
        attacker.close()
        if verdict.code != wire.BUSY:
            raise OSError(-verdict.code, verdict.text)
        return None

    @contextlib.contextmanager
    def owner_at_stream(self, image=None, **options):
        """One who is in order, and has been let in as soon as the writer before was gone."""
        with wait_until(lambda: self._admitted(image, options), ENTER_SECONDS, "a writer let in") as attacker:
            yield attacker

    @contextlib.contextmanager
    def owner(self, image=None, **options):
        """The same, all the way to the image: (attacker, NBD)."""
        with self.owner_at_stream(image, **options) as attacker:
            yield attacker, NbdClient(attacker.stream).greet().go()

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
