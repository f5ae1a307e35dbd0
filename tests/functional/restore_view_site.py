"""The common part of the tests of mounted images: volumes with files, their images, and what bek-restore
leaves of its views."""
import contextlib
import json
import os
import pathlib
import stat
import subprocess
import time

from lab import filesystems
from lab.daemon import program
from lab.volume_images import mounted

SECONDS = 120
VIEWS = pathlib.Path("/run/bek-restore")
LOOPS = 64 # /dev is private here, so the kernel doesn't make the nodes
MOUNTABLE = {"ext4": 24, "xfs": 300, "ntfs": 24, "vfat": 90} # MiB
DONE, FAILED, WRONG, DIFFERS = 0, 1, 2, 3


def make_loop_nodes():
    for number in range(LOOPS):
        path = pathlib.Path(f"/dev/loop{number}")
        if not path.exists():
            os.mknod(path, 0o600 | stat.S_IFBLK, os.makedev(7, number))


def restore(*arguments, secret=None, status=DONE, **options):
    """Runs a call to its end, which must have this status."""
    environment = {**os.environ, **({"BEK_RESTORE_SECRET": secret} if secret else {})}
    done = subprocess.run([program("bek-restore"), *map(str, arguments)], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, check=False, timeout=SECONDS, env=environment,
                          **options)
    assert done.returncode == status, done
    return done


def json_of(*arguments, **options):
    """The output of a call for programs, parsed from JSON."""
    return json.loads(restore(*arguments, "--json", **options).stdout)


def fails(*arguments, status=FAILED, **options):
    """Runs a call that must fail; returns its error text, which must be one line."""
    done = restore(*arguments, status=status, **options)
    assert done.stderr.startswith("bek-restore: ") and done.stdout == "", done
    return done.stderr.removeprefix("bek-restore: ").strip()


def make_image(directory, file_system, fill, name="image"):
    """Makes a file with a file system, in which `fill(root)` creates files."""
    image = pathlib.Path(directory, name)
    with open(image, "wb") as file:
        file.truncate(MOUNTABLE[file_system] << 20)
    filesystems.make(file_system, image)
    with mounted(image, file_system, pathlib.Path(directory, f"{name}-making")) as (_, root):
        fill(root)
    return image


@contextlib.contextmanager
def mount_of(image, directory, *options, **more):
    """Mounts an image with bek-restore, and has bek-restore unmount it at the end."""
    directory.mkdir(exist_ok=True)
    restore("mount", *options, image, directory, **more)
    try:
        yield directory
    finally:
        restore("umount", directory)


def states():
    return [json.loads(path.read_text(encoding="utf-8")) for path in VIEWS.glob("*/state")]


def command_of(pid):
    with contextlib.suppress(OSError):
        return pathlib.Path("/proc", str(pid), "cmdline").read_bytes().split(b"\0")[:-1]
    return []


def servers(name=b"nbd"):
    """The processes that serve views in this namespace, found by the open descriptor of a view's
    directory."""
    found = {}
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            words = command_of(process.name)
            if words and os.path.basename(words[0]).startswith(name) and b"/run/bek-restore/" in b" ".join(
                    os.readlink(link).encode() for link in (process / "fd").iterdir()) and is_ours(process):
                found[int(process.name)] = words
    return found


def is_ours(process):
    """Whether a process is in this namespace, whose /tmp is its own. Other tests run in parallel in other
    namespaces."""
    return os.stat(process / "root/tmp").st_dev == os.stat("/tmp").st_dev


def require_nothing_left():
    """Waits a little, as processes that are told to end take a moment."""
    deadline = time.monotonic() + 20
    while left() and time.monotonic() < deadline:
        time.sleep(0.02)
    assert left() == []


def left():
    return [*(str(path) for path in VIEWS.glob("*")), *servers()]
