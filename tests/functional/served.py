"""FUSE volumes, for inside lab/namespace, and a FUSE file system of our own.

    served.py DEVICE MOUNT_POINT [--threads] [COMMAND...]

mounts a file system that exists on the device in name only. A read of its file "slow" blocks as long as the
file SLOW exists, which the read creates; a read of "answer" runs the command and returns its output.
"""
import errno
import os
import pathlib
import random
import stat
import subprocess
import sys
import threading
import time

from lab.commands import run
from lab.mounts import keep_mounts_of
from lab.services import Service, wait_until

ROOT = pathlib.Path(__file__).parents[2]
SLOW = pathlib.Path("/run/slow")
SECONDS = 60
FUSE = os.makedev(10, 229)


def is_device(descriptor, kind, number):
    try:
        status = descriptor.stat()
    except OSError:
        return False
    return kind(status.st_mode) and status.st_rdev == number


def server_of(device):
    """The PID of the FUSE process of a device."""
    number = pathlib.Path(device).stat().st_rdev
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            descriptors = list((process / "fd").iterdir())
        except OSError:
            continue
        if any(is_device(one, stat.S_ISBLK, number) for one in descriptors) \
                and any(is_device(one, stat.S_ISCHR, FUSE) for one in descriptors):
            return int(process.name)
    raise AssertionError(f"nothing serves {device}")


def state_of(process):
    """The state of a process as ps(1) shows it: T for stopped."""
    return pathlib.Path(f"/proc/{process}/stat").read_text(encoding="utf-8").rsplit(")", 1)[1].split()[0]


def is_stopped(process):
    return state_of(process) == "T"


def wait_until_stopped(process):
    wait_until(lambda: is_stopped(process), 20, f"process {process} stopped")


class Load:
    """Writes, appends to and removes files during the context."""

    def __init__(self, folder):
        self._folder = folder
        self._source = random.Random(1)
        self._end = threading.Event()
        self._thread = threading.Thread(target=self._work)
        self._changes = 0

    def wait_for_more(self):
        """Waits until some more changes have been made."""
        before = self._changes
        wait_until(lambda: self._changes > before + 20, 20, "changes")

    def _work(self):
        while not self._end.is_set():
            path = self._folder / f"f{self._source.randrange(400)}"
            if self._source.random() < .4:
                path.unlink(missing_ok=True)
            else:
                with open(path, self._source.choice(("ab", "wb"))) as file:
                    file.write(self._source.randbytes(self._source.randrange(40_000)))
            self._changes += 1

    def __enter__(self):
        self._folder.mkdir(exist_ok=True)
        self._thread.start()
        return self

    def __exit__(self, *_exception):
        self._end.set()
        self._thread.join()


class Served(Service):
    """The FUSE process below, as the file system of a device."""

    def __init__(self, device, mount_point, *arguments):
        super().__init__()
        self._mount_point = pathlib.Path(mount_point)
        self._keeper = None
        self.command = ("env", f"PYTHONPATH={ROOT}", "/usr/bin/python3", __file__,
                        *map(str, (device, mount_point, *arguments)))

    def prepare(self):
        self._mount_point.mkdir(parents=True, exist_ok=True)

    def is_ready(self):
        return os.path.ismount(self._mount_point)

    def start(self):
        super().start()
        self._keeper = keep_mounts_of(self.pid)
        return self

    def stop(self):
        if os.path.ismount(self._mount_point):
            run("umount", self._mount_point)
        super().stop()
        if self._keeper:
            self._keeper.wait(SECONDS)


def serve(device, mount_point, *options):
    import fusepy # pylint: disable=import-outside-toplevel

    has_threads = options[:1] == ("--threads",)
    command = options[has_threads:]

    class Files(fusepy.Operations):
        files = {"/slow": b"slow", "/answer": bytes(1000)}

        def getattr(self, path, fh=None):
            if path == "/":
                return {"st_mode": stat.S_IFDIR | 0o755, "st_nlink": 2}
            if path not in self.files:
                raise fusepy.FuseOSError(errno.ENOENT)
            return {"st_mode": stat.S_IFREG | 0o644, "st_nlink": 1, "st_size": len(self.files[path])}

        def readdir(self, path, fh):
            return [".", "..", *(name[1:] for name in self.files)]

        def create(self, path, mode, fi=None):
            self.files[path] = b""
            return 0

        def unlink(self, path):
            del self.files[path]

        def rename(self, old, new):
            self.files[new] = self.files.pop(old)

        def write(self, path, data, offset, fh):
            old = self.files[path].ljust(offset, b"\0")
            self.files[path] = old[:offset] + data + old[offset + len(data):]
            return len(data)

        def statfs(self, path):
            return {"f_bsize": 4096, "f_frsize": 4096, "f_blocks": 4096, "f_bfree": 2048, "f_bavail": 2048}

        def read(self, path, size, offset, fh):
            if path == "/slow":
                SLOW.touch()
                while SLOW.exists():
                    time.sleep(0.02)
            if path == "/answer":
                answer = subprocess.run(command, capture_output=True, check=False, timeout=30).stdout
                return answer.ljust(1000)[offset:offset + size]
            return self.files[path][offset:offset + size]

    with open(device, "rb"):
        fusepy.FUSE(Files(), mount_point, foreground=True, nothreads=not has_threads, fsname=device,
                    blkdev=True)


if __name__ == "__main__":
    serve(*sys.argv[1:])
