"""An iSCSI target of another implementation for the lab: istgt, with images in files that are poisoned at
first.

    with Istgt(port=3260) as target:
        image = target.add_image("data", 1 << 30)
        target.portal, target.name, image.lun, image.path

Written data is in the files at once, in the kernel's page cache. istgt reads its list of images only when it
starts, so each new image restarts it: add images while nobody is logged in. A login takes a second. istgt
doesn't report what was written.
image_server.py has what all servers of images can do.
"""
import contextlib
import math
import socket

from lab.image_server import ADDRESS, ImageServer

NODE = "iqn.2026-01.example"
TARGET = "istgt"
SLOTS = 64 # commands of one initiator that it queues at a time
MOST_IMAGES = 16
CONFIGURATION = """\
[Global]
  NodeBase "{node}"
  PidFile {directory}/pid
  AuthFile {directory}/accounts
  MediaDirectory {directory}
  LogFacility local7
  Timeout 30
  NopInInterval 20
  MaxSessions 16
  MaxConnections 4
  MaxR2T 32
  MaxOutstandingR2T 16
  DefaultTime2Wait 2
  DefaultTime2Retain 60
  FirstBurstLength 262144
  MaxBurstLength 1048576
  MaxRecvDataSegmentLength 262144
  InitialR2T Yes
  ImmediateData Yes
  DataPDUInOrder Yes
  DataSequenceInOrder Yes
  ErrorRecoveryLevel 0
[UnitControl]
[PortalGroup1]
  Portal DA1 {portal}
[InitiatorGroup1]
  InitiatorName ALL
  Netmask ALL
"""
UNIT = """\
[LogicalUnit1]
  TargetName {target}
  Mapping PortalGroup1 InitiatorGroup1
  AuthMethod None
  UseDigest Auto
  UnitType Disk
  QueueDepth {slots}
  BlockLength {block_size}
"""


class Image:
    """A disk of the target."""

    def __init__(self, target, path, lun):
        self._target = target
        self.name = path.name
        self.lun = lun
        self.path = path

    def request_keys(self):
        """The keys that name the image in a backup request."""
        return {"target": self._target.portal, "name": self._target.name, "lun": self.lun}


class Istgt(ImageServer):
    """One istgt with one target, whose disks all have the same sector size."""

    name = f"{NODE}:{TARGET}"

    def __init__(self, port=3260, directory="/tmp", *, block_size=512):
        super().__init__(port, directory)
        self.block_size = block_size
        self._run = None

    @property
    def _configuration(self):
        return self._run / "istgt.conf"

    @property
    def command(self):
        return ("istgt", "-D", "-c", str(self._configuration))

    def open(self, stack):
        super().open(stack)
        self._run = self.make_directory(stack, "istgt-", "/run")
        stack.callback(self.kill)
        self.start()

    def prepare(self):
        text = CONFIGURATION.format(node=NODE, directory=self._run, portal=self.portal)
        if self.images: # a target has at least one
            text += UNIT.format(target=TARGET, slots=SLOTS, block_size=self.block_size)
        text += "".join(f"  LUN{image.lun} Storage {image.path} Auto\n" for image in self.images)
        self._configuration.write_text(text, encoding="ascii")
        (self._run / "accounts").touch(0o600)
        with socket.create_server((ADDRESS, self.port)):
            pass # fails if the port is taken, as is_ready() would mistake that server for istgt

    def is_ready(self):
        with contextlib.suppress(OSError), socket.create_connection((ADDRESS, self.port)):
            return True
        return False

    def add_image(self, name, size, *, poisoned=True):
        """Adds a disk, rounded up to whole blocks. See ImageServer."""
        assert len(self.images) < MOST_IMAGES
        size = math.ceil(size / self.block_size) * self.block_size
        image = super().add_image(name, size, poisoned=poisoned)
        self.restart()
        return image

    def serve(self, path):
        return Image(self, path, len(self.images))

    stop = ImageServer.kill # SIGTERM would make it wait for its initiators
