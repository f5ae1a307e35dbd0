"""An iSCSI target for the lab: tgtd, with images in files that are poisoned at first.

    with Target(port=3260) as target:
        image = target.add_image("data", 1 << 30)
        target.portal, target.name, image.lun, image.path

Written data is in the files at once, in the kernel's page cache, so nothing is lost when tgtd is killed.
image_server.py has what all servers of images can do.
"""
import contextlib
import math
import os
import socket

from lab.commands import run
from lab.image_server import ADDRESS, ImageServer, Writes

NAME = "iqn.2026-01.example:images"
TARGET = "1" # the ID of the only target of each tgtd
NOBODY = ("", "")


class Image:
    """A disk of the target. If `thin` is true, it supports UNMAP, which marks blocks as unused."""

    def __init__(self, target, path, lun, block_size, thin):
        self._target = target
        self.name = path.name
        self.lun = lun
        self.block_size = block_size
        self.thin = thin
        self.path = path
        self.threads = set()
        self._earlier = Writes()

    def request_keys(self):
        """The keys that name the image in a backup request."""
        user, password = self._target.account
        return {"target": self._target.portal, "name": self._target.name, "lun": self.lun, "username": user,
                "password": password}

    def writes(self):
        """The writes of completed commands to the image since it was added.

        tgtd has threads for each image that do nothing but its input and output, with one write system call
        for each writing command, so the kernel's I/O counters of these threads are exact. tgtd's own counters
        are lost when the initiator logs out."""
        return sum((writes_of(thread) for thread in self._target.threads(self)), self._earlier)

    def save_write_counters(self):
        """Saves the counters, because the threads are about to end."""
        self._earlier = self.writes()
        self.threads = set()


def writes_of(thread):
    lines = (thread / "io").read_text(encoding="ascii").splitlines()
    account = dict(line.split(": ") for line in lines)
    return Writes(int(account["syscw"]), int(account["wchar"]))


class Target(ImageServer):
    """One tgtd with one target."""

    def __init__(self, port=3260, name=NAME, directory="/tmp"):
        super().__init__(port, directory)
        self.name = name
        self._accounts = {}
        self._control = None

    @property
    def account(self):
        """The user and password for a backup: the last pair that require_chap() got, if any."""
        return list(self._accounts.items())[-1] if self._accounts else NOBODY

    @property
    def command(self):
        return ("env", f"TGT_IPC_SOCKET={self._control}", "tgtd", "-f", "--iscsi", f"portal={self.portal}")

    def open(self, stack):
        super().open(stack)
        self._control = self.make_directory(stack, "tgtd-", "/run") / "control"
        stack.callback(self.kill)
        self.start()

    def prepare(self):
        for path in self._control.parent.iterdir():
            path.unlink()
        with socket.create_server((ADDRESS, self.port)):
            pass # fails if the port is taken, as tgtd would run on without its portal

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
        """Adds a disk, rounded up to whole blocks. See ImageServer."""
        size = math.ceil(size / block_size) * block_size
        return super().add_image(name, size, poisoned=poisoned, block_size=block_size, thin=thin)

    def serve(self, path, *, block_size, thin):
        image = Image(self, path, len(self.images) + 1, block_size, thin) # LUN 0 is tgtd's own
        self._add_unit(image)
        return image

    def _add_unit(self, image):
        others = self.all_threads()
        unit = ("--tid", TARGET, "--lun", str(image.lun))
        self._administer("new", "logicalunit", *unit, "--backing-store", image.path,
                         "--blocksize", str(image.block_size))
        if image.thin:
            self._administer("update", "logicalunit", *unit, "--params", "thin_provisioning=1")
        image.threads = self.all_threads() - others

    def sessions(self):
        """How many initiators are logged in."""
        return self._administer("show", "conn", "--tid", TARGET).count("Session:")

    def require_chap(self, user, password):
        """Requires CHAP from the next login on, with this account or an earlier one."""
        self._accounts[user] = password
        self._add_account(user, password)

    def _add_account(self, user, password):
        self._administer("new", "account", "--user", user, "--password", password)
        self._administer("bind", "account", "--tid", TARGET, "--user", user)

    def threads(self, image):
        """The threads that work for an image; none while the target is down."""
        if self._process is None:
            return set()
        self.check_running()
        return image.threads

    def save_write_counters(self):
        for image in self.images:
            image.save_write_counters()

    stop = ImageServer.kill # tgtd doesn't end by a signal while it has targets
