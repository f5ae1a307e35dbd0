"""FUSE mounts, which last as long as a context does."""
import os

from lab.commands import run
from lab.mounts import keep_mounts_of
from lab.services import Service

SECONDS = 60


class FuseMount(Service):
    """The FUSE process of a mount. It runs in the foreground; the command is that of the file system."""

    def __init__(self, command, mount_point):
        super().__init__()
        self.command = command
        self._mount_point = mount_point
        self._keeper = None

    def start(self):
        super().start()
        self._keeper = keep_mounts_of(self.pid)
        return self

    def is_ready(self):
        return os.path.ismount(self._mount_point)

    def stop(self):
        if os.path.ismount(self._mount_point):
            run("umount", self._mount_point)
            self._process.wait(SECONDS) # it still has to mark the volume clean on the disk
        super().stop()
        if self._keeper:
            self._keeper.wait(SECONDS)
