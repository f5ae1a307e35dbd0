"""What the tests of images that are looked into share: volumes with files, their images, and what bek-restore
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
LOOPS = 64 # /dev is private here, and the kernel makes its nodes elsewhere
MOUNTABLE = {"ext4": 24, "xfs": 300, "ntfs": 24, "vfat": 90} # MiB
DONE, FAILED, WRONG, DIFFERS = 0, 1, 2, 3


def make_loop_nodes():
    for number in range(LOOPS):
        path = pathlib.Path(f"/dev/loop{number}")
        if not path.exists():
            os.mknod(path, 0o600 | stat.S_IFBLK, os.makedev(7, number))


def restore(*arguments, secret=None, status=DONE, **options):
    """One call, which has ended with this status."""
    environment = {**os.environ, **({"BEK_RESTORE_SECRET": secret} if secret else {})}
    done = subprocess.run([program("bek-restore"), *map(str, arguments)], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, check=False, timeout=SECONDS, env=environment,
                          **options)
    assert done.returncode == status, done
    return done


def told(*arguments, **options):
    """What a call prints for programs."""
    return json.loads(restore(*arguments, "--json", **options).stdout)


def fails(*arguments, status=FAILED, **options):
    """What a call says that fails, in one line."""
    done = restore(*arguments, status=status, **options)
    assert done.stderr.startswith("bek-restore: ") and done.stdout == "", done
    return done.stderr.removeprefix("bek-restore: ").strip()


def make_image(directory, file_system, fill, name="image"):
    """A file with a file system, in which `fill(root)` has made files."""
    image = pathlib.Path(directory, name)
    with open(image, "wb") as file:
        file.truncate(MOUNTABLE[file_system] << 20)
    filesystems.make(file_system, image)
    with mounted(image, file_system, pathlib.Path(directory, f"{name}-making")) as (_, root):
        fill(root)
    return image


@contextlib.contextmanager
def mount_of(image, directory, *options, **more):
    """What bek-restore has mounted; afterwards it is unmounted by it."""
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
    """The processes that serve views of this namespace, as the descriptor of their place tells."""
    found = {}
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            words = command_of(process.name)
            if words and os.path.basename(words[0]).startswith(name) and b"/run/bek-restore/" in b" ".join(
                    os.readlink(link).encode() for link in (process / "fd").iterdir()) and is_ours(process):
                found[int(process.name)] = words
    return found


def is_ours(process):
    """Other tests run beside these, in namespaces of their own; all of one have its /tmp."""
    return os.stat(process / "root/tmp").st_dev == os.stat("/tmp").st_dev


def require_nothing_left():
    """Waits a little: what is told to end takes a moment."""
    deadline = time.monotonic() + 20
    while left() and time.monotonic() < deadline:
        time.sleep(0.02)
    assert left() == []


def left():
    return [*(str(path) for path in VIEWS.glob("*")), *servers()]
