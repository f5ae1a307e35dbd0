"""A stand-in for a mounted HFS+ volume, as no kernel here can mount one: a FUSE process that reports the size
and the free blocks of the volume. It keeps the files that are created there, which are the agent's, in
memory. The volume itself isn't changed.

    hfs_mount.py DEVICE MOUNT_POINT
"""
import contextlib
import errno
import os
import pathlib
import stat
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT))

from lab.commands import run  # noqa: E402
from lab.hfs import HfsVolume  # noqa: E402
from lab.mounts import keep_mounts_of  # noqa: E402
from lab.services import Service  # noqa: E402

SECONDS = 60
FUSE = pathlib.Path("/dev/fuse")


class HfsMount(Service):
    """The FUSE process, for a device that isn't mounted otherwise."""

    def __init__(self, device, mount_point):
        super().__init__()
        self._mount_point = pathlib.Path(mount_point)
        self._keeper = None
        self.command = ("/usr/bin/python3", __file__, str(device), str(mount_point))

    def prepare(self):
        self._mount_point.mkdir(parents=True, exist_ok=True)
        if not FUSE.exists(): # where /dev is private, without the kernel's nodes
            os.mknod(FUSE, 0o600 | stat.S_IFCHR, os.makedev(10, 229))

    def is_ready(self):
        return os.path.ismount(self._mount_point)

    def start(self):
        super().start()
        self._keeper = keep_mounts_of(self.pid)
        return self

    def stop(self):
        with contextlib.suppress(OSError):
            run("umount", self._mount_point)
        super().stop()
        if self._keeper:
            self._keeper.wait(SECONDS)


def serve(device, mount_point):
    import fusepy # pylint: disable=import-outside-toplevel

    with open(device, "rb") as file:
        facts = HfsVolume(file)

    class Files(fusepy.Operations):
        files = {}

        def getattr(self, path, fh=None):
            if path == "/":
                return {"st_mode": stat.S_IFDIR | 0o755, "st_nlink": 2}
            if path not in self.files:
                raise fusepy.FuseOSError(errno.ENOENT)
            length = len(self.files[path])
            return {"st_mode": stat.S_IFREG | 0o600, "st_nlink": 1, "st_size": length,
                    "st_blocks": -(-length // 512)}

        def readdir(self, path, fh):
            return [".", "..", *(name[1:] for name in self.files)]

        def create(self, path, mode, fi=None):
            self.files[path] = bytearray()
            return 0

        def read(self, path, size, offset, fh):
            return bytes(self.files[path][offset:offset + size])

        def write(self, path, data, offset, fh):
            content = self.files[path]
            content.extend(bytes(max(0, offset - len(content))))
            content[offset:offset + len(data)] = data
            return len(data)

        def truncate(self, path, length, fh=None):
            content = self.files[path]
            content.extend(bytes(max(0, length - len(content))))
            del content[length:]

        def unlink(self, path):
            del self.files[path]

        def rename(self, old, new):
            self.files[new] = self.files.pop(old)

        def statfs(self, path):
            return {"f_bsize": facts.block_size, "f_frsize": facts.block_size, "f_blocks": facts.blocks,
                    "f_bfree": facts.free_blocks, "f_bavail": facts.free_blocks}

    with open(device, "rb"):
        fusepy.FUSE(Files(), mount_point, foreground=True, nothreads=True, fsname=device, blkdev=True,
                    allow_other=True)


if __name__ == "__main__":
    serve(*sys.argv[1:])
