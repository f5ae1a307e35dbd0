"""Images of machines: made once from packages, stored below build/machine, shared by all runs.

    image = images.get("uml")            # or "qemu"; makes it if it isn't there
    image.root, image.key                # a file that is never written to, and the key to log in with

The name of an image has a digest of all that it is made from, except the date: its list of packages and the
programs that make it. One process makes it, others wait. BEKD_MACHINE_IMAGES names another directory, to
share images among checkouts.
"""
import contextlib
import fcntl
import hashlib
import os
import pathlib
import shutil
import tempfile
import time

from lab.virtual import debian
from lab.virtual.packages import STOCK_KERNEL, packages

ROOT = pathlib.Path(__file__).resolve().parents[2]
SIZE = 4 << 30
UML_MODULES = pathlib.Path("/usr/lib/uml/modules")
KEPT_SECONDS = 14 * 86400
KINDS = ("uml", "qemu")


def directory():
    return pathlib.Path(os.environ.get("BEKD_MACHINE_IMAGES", ROOT / "build" / "machine"))


class Image:
    """The files that a machine starts from."""

    def __init__(self, path):
        self.path = path
        self.root = path / "root.img"
        self.key = path / "key"
        self.kernel = path / "vmlinuz"   # only for "qemu", like the next one
        self.initrd = path / "initrd"


def get(kind):
    """The image of a kind; makes it if it doesn't exist."""
    path = directory() / f"{kind}-{digest(kind)}"
    if not (path / "complete").exists():
        with only_one(kind):
            if not (path / "complete").exists():
                remove_old()
                build(kind, path)
    os.utime(path / "complete")
    return Image(path)


def digest(kind):
    """The digest of all that an image is made from."""
    made_of = hashlib.sha256(" ".join([kind, debian.release(), *contents(kind)]).encode())
    for source in sorted(pathlib.Path(__file__).parent.glob("inside/*")) + \
            [pathlib.Path(debian.__file__), pathlib.Path(__file__)]:
        made_of.update(source.read_bytes())
    return made_of.hexdigest()[:16]


def contents(kind):
    if kind == "qemu":
        return [*packages(), *STOCK_KERNEL]
    return [*packages(), *(path.name for path in UML_MODULES.iterdir())]


@contextlib.contextmanager
def only_one(kind):
    directory().mkdir(parents=True, exist_ok=True)
    with open(directory() / f"{kind}.lock", "wb") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        yield


def remove_old():
    """Removes images that nobody has used for a long time."""
    for stamp in directory().glob("*/complete"):
        if time.time() - stamp.stat().st_mtime > KEPT_SECONDS:
            shutil.rmtree(stamp.parent)


def build(kind, path):
    shutil.rmtree(path, ignore_errors=True)
    path.mkdir()
    debian.command("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "machine", "-f", path / "key")
    with tempfile.TemporaryDirectory(prefix="making-", dir=directory()) as scratch:
        tree = pathlib.Path(scratch, "tree")
        {"uml": build_uml, "qemu": build_qemu}[kind](tree, path)
        debian.make_file_system(tree, path / "root.img", SIZE)
    (path / "complete").touch()


def build_uml(tree, path):
    debian.make_tree(tree, packages())
    debian.configure(tree, "/dev/ubda", path / "key.pub")
    (tree / "lib/modules").mkdir(exist_ok=True)
    for modules in UML_MODULES.iterdir():
        debian.command("cp", "-a", modules, tree / "lib/modules/")


def build_qemu(tree, path):
    initramfs = '"$1"/etc/initramfs-tools/conf.d'
    debian.make_tree(tree, [*packages(), *STOCK_KERNEL],
                     before=[f"mkdir -p {initramfs}; echo MODULES=most > {initramfs}/machine"])
    debian.configure(tree, "/dev/vda", path / "key.pub")
    for name in ("vmlinuz", "initrd"):
        found = next((tree / "boot").glob(f"{name}*-amd64"))
        shutil.copy(found, path / name)
