"""Chains of backups: after each, the image equals the volume, and only changes were sent.

The changes are calculated from the driver's captures of the volume before and after, and from the used blocks
that the file systems' own tools report."""
import os
import random
import shutil

from backup_site import Ledger, fill, root_of
from change_records import UNIT
from lab.logical_disk import are_volumes_logical

MIB = 1 << 20
STEPS = 20
SMALL_FILES = 5000 # on each of two volumes
METADATA = 4 * MIB # more than a few changes write to the journal


def files_below(root):
    return sorted(path for path in root.rglob("*")
                  if path.is_file() and not path.is_symlink() and not path.name.startswith(".tolvu"))


def change_nothing(_root):
    pass


def change_a_byte(root):
    with open(root / "large", "r+b") as file:
        file.seek(5 * MIB + 12345)
        file.write(b"!")


def write_small_files(root):
    for number in range(SMALL_FILES):
        path = root / f"small {number % 50}" / f"{number}"
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(b"%099d\n" % number)
    os.sync() # XFS reserves several times the room for delayed allocations, and would seem full


def remove_a_file(root):
    (root / "other").unlink()


def truncate_a_file(root):
    os.truncate(root / "large", 9 * MIB + 100)


def overwrite_a_third(root):
    """Overwrites the first three of every ten 64 KiB of the large file, in place."""
    source = random.Random(30)
    path = root / "large"
    with open(path, "r+b") as file:
        for at in range(0, path.stat().st_size, 10 << 16):
            file.seek(at)
            file.write(source.randbytes(min(3 << 16, path.stat().st_size - at)))


def test_each_change_is_brought_and_nothing_else(protect, volumes):
    roots = [root_of(partition) for partition in volumes.values()]
    for root in roots:
        fill(root, root.name)
        (root / "large").write_bytes(random.Random(1).randbytes(20 * MIB))
        (root / "other").write_bytes(random.Random(2).randbytes(5 * MIB))
    with Ledger(protect()) as ledger:
        for name, sent in ledger.run("full", full=True).items():
            assert sent.check().reported_bytes > 25 * MIB, name
        # Each change, with the least and the most bytes that it changes, besides the file system's own
        # writes.
        for change, least, most in ((change_nothing, 0, 0),
                                    (change_a_byte, 1, UNIT),
                                    (remove_a_file, 0, 0),
                                    (truncate_a_file, 0, UNIT),
                                    (overwrite_a_third, 2 * MIB, 3 * MIB),
                                    (write_small_files, SMALL_FILES * 100, SMALL_FILES * (UNIT + 1024))):
            for root in roots:
                change(root)
            for name, sent in ledger.run("incremental").items():
                sent.check()
                assert least <= sent.reported_bytes <= most + METADATA, (change.__name__, name)


def write_zeros(root):
    """Overwrites all free space, where CoW files were before, with zeros; leaves room for the next one."""
    free = os.statvfs(root)
    (root / "zeros").write_bytes(bytes(free.f_bavail * free.f_frsize - 110 * MIB))
    os.sync()


def test_what_comes_into_use_is_brought_whatever_it_holds(protect, volumes):
    """A block that comes into use may not have changed: it may hold zeros where nothing was ever written, or
    old data of the driver's and the agent's own files, which no image has, or its own data from before the
    file was removed. It must be sent nevertheless."""
    roots = [root_of(partition) for partition in volumes.values()]
    for root in roots:
        (root / "removed").write_bytes(random.Random(3).randbytes(10 * MIB))
    os.sync()
    for root in roots:
        (root / "removed").unlink()
    os.sync()
    with Ledger(protect()) as ledger:
        ledger.run("full", full=True)
        for root in roots:
            (root / "removed").write_bytes(random.Random(3).randbytes(10 * MIB))
            with open(root / "reserved", "wb") as file:
                os.posix_fallocate(file.fileno(), 0, 3 * MIB)
        if are_volumes_logical(): # blocks never written aren't sent, and read as zeros
            ledger.protection.excluded_files += ("reserved",)
        ledger.run("incremental")
        for root in roots:
            write_zeros(root)
        for sent in ledger.run("incremental").values():
            assert sent.check().reported_bytes > 20 * MIB
        for root in roots:
            (root / "zeros").unlink()
        for sent in ledger.run("incremental").values():
            assert sent.check().reported_bytes < METADATA
        for root in roots:
            write_zeros(root)
        for sent in ledger.run("incremental").values():
            assert sent.check().reported_bytes > 20 * MIB


class Changer:
    """Makes random changes of all kinds in a directory."""

    def __init__(self, root, source):
        self._root = root
        self._source = source
        self._made = 0

    def run(self, times):
        for _ in range(times):
            self._source.choice((self.create, self.create, self.append, self.overwrite, self.truncate,
                                 self.remove, self.rename, self.link, self.touch, self.make_tree,
                                 self.remove_tree, self.dig))()

    def _name(self):
        self._made += 1
        directories = [self._root, *sorted(path for path in self._root.iterdir() if path.is_dir())]
        return self._source.choice(directories) / f"made {self._made}"

    def _any(self):
        return self._source.choice(files_below(self._root) or [self.create()])

    def create(self):
        path = self._name()
        path.write_bytes(self._source.randbytes(self._source.choice((0, 1, 4095, 70_000, 700_000))))
        return path

    def append(self):
        with open(self._any(), "ab") as file:
            file.write(self._source.randbytes(self._source.randrange(100_000)))

    def overwrite(self):
        path = self._any()
        with open(path, "r+b") as file:
            file.seek(self._source.randrange(path.stat().st_size + 1))
            file.write(self._source.randbytes(self._source.randrange(50_000)))

    def truncate(self):
        path = self._any()
        os.truncate(path, self._source.randrange(path.stat().st_size + 1))

    def remove(self):
        self._any().unlink()

    def rename(self):
        self._any().rename(self._name())

    def link(self):
        os.link(self._any(), self._name())
        self._name().symlink_to("nowhere")

    def touch(self):
        path = self._any()
        path.chmod(self._source.randrange(0o1000))
        os.setxattr(path, "user.note", self._source.randbytes(200))

    def make_tree(self):
        self._made += 1
        fill(self._root, f"{self._made}", files=30, largest=20_000)

    def remove_tree(self):
        directories = [path for path in self._root.iterdir() if path.is_dir() and path.name != "lost+found"]
        if directories:
            shutil.rmtree(self._source.choice(directories))

    def dig(self):
        """Makes a file with holes."""
        with open(self._name(), "wb") as file:
            for _ in range(5):
                file.seek(self._source.randrange(2 * MIB), os.SEEK_CUR)
                file.write(self._source.randbytes(5000))


def test_long_chain_of_random_changes(protect, volumes):
    """The chain is the same each time, unless `BEKD_SEED` changes it."""
    seed = int(os.environ.get("BEKD_SEED", 1))
    print(f"BEKD_SEED={seed}")
    changers = [Changer(root_of(partition), random.Random(f"{seed} {name}"))
                for name, partition in volumes.items()]
    with Ledger(protect()) as ledger:
        ledger.run("full", full=True)
        for _ in range(STEPS):
            for changer in changers:
                changer.run(15)
            for name, sent in ledger.run("incremental").items():
                assert sent.check().reported_bytes < volumes[name].volume.mebibytes * MIB / 4
