"""NTFS, as far as the lab makes and mounts it: its driver is a process."""
import contextlib
import os
import pathlib

from lab.commands import run
from lab.kind import Format
from lab.mounts import keep_mounts_of
from lab.services import Service

SECONDS = 60


class NtfsMount(Service):
    """An NTFS volume mounted by ntfs-3g: the process is the mount."""

    def __init__(self, device, mount_point, options):
        super().__init__()
        self.command = ("ntfs-3g", device, mount_point, "-o", f"no_detach,{options}")
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
        super().stop()
        if self._keeper:
            self._keeper.wait(SECONDS)


@contextlib.contextmanager
def mounted(device, mount_point, options, _file_system):
    mount_point = pathlib.Path(mount_point)
    mount_point.mkdir(parents=True, exist_ok=True)
    with NtfsMount(str(device), str(mount_point), options):
        yield mount_point


FORMAT = Format(makers={"ntfs": ("mkfs.ntfs", "--quick", "--quiet", "--force")}, label_option="--label",
                mount=mounted)
