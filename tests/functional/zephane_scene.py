"""The scene of attacks on the second transport: a server, two images, and checks that must hold after each
attack."""
import contextlib
import hashlib
import socket

import zephane_wire as wire
from lab.resources import Resource
from lab.services import wait_until
from lab.usage import status_number
from lab.zephane import ZephaneServer
from zephane_nbd import NbdClient
from zephane_peers import Attacker, Image

MIB = 1 << 20
SIZE, OTHER_SIZE = 16 * MIB, 24 * MIB
SECONDS = 20
ENTER_SECONDS = 5
MOST_MEMORY = 256 * 1024 # KiB of the server; each session has its own windows and buffers


def digest(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


class Scene(Resource):
    """Two images of one server, `image` and `other`. The scene always knows what the files must hold."""

    def open(self, stack):
        self.server = stack.enter_context(ZephaneServer())
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
        """Takes the current content of the images as the right one."""
        self._known = {image: digest(self.path(image)) for image in (self.image, self.other)}

    def attacker(self, image=None, flags=wire.WRITABLE, **options):
        return Attacker(self.port, image or self.image, flags, **options)

    def _admitted(self, image, options):
        """An attacker that the server has admitted, None if there is another writer."""
        attacker = self.attacker(image, **options)
        verdict = attacker.shake_hands()
        if verdict.code == 0:
            return attacker
        attacker.close()
        if verdict.code != wire.BUSY:
            raise OSError(-verdict.code, verdict.text)
        return None

    @contextlib.contextmanager
    def admitted_client(self, image=None, **options):
        """A well-behaved client, admitted as soon as the previous writer has gone."""
        with wait_until(lambda: self._admitted(image, options), ENTER_SECONDS, "a writer let in") as attacker:
            yield attacker

    @contextlib.contextmanager
    def owner(self, image=None, **options):
        """The same, connected up to the image: (attacker, NBD)."""
        with self.admitted_client(image, **options) as attacker:
            yield attacker, NbdClient(attacker.stream).greet().go()

    def check_unharmed(self):
        """Checks that the server runs, admits the owner of each image and uses bounded memory, and that its
        images are unchanged."""
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
        """The server's peak memory in KiB."""
        return status_number(self.server.pid, "VmHWM")

    def connect(self):
        """A plain TCP connection to the server."""
        return socket.create_connection(("127.0.0.1", self.port), SECONDS)


def flipped(data, byte, bit):
    return data[:byte] + bytes([data[byte] ^ 1 << bit]) + data[byte + 1:]
