"""Checks of an image that a backup has written, against the snapshot or the volume it was made from.

    fsck(image.path, "ext4")
    with mounted(image.path, "ext4") as root:
        assert tree_hashes(root) == tree_hashes(snapshot_root)
    compare_used("/dev/tolvu0", image.path, "ext4").check()

`offset` is where the volume begins in the image. Nothing here writes to an image. Inside lab/namespace only.
"""
import contextlib
import dataclasses
import hashlib
import os
import pathlib
import re
import stat
import subprocess
import tempfile
import typing

from lab import filesystems
from lab.commands import run
from lab.driver import OWN_FILES
from lab.filesystems import kind_of, truth_of
from lab.loops import attached
from lab.poison import is_poison

SECONDS = 600
PIECE = 4 << 20
SHOWN = 10


class ImageError(AssertionError):
    """An image doesn't hold what it should."""


@contextlib.contextmanager
def mounted_somewhere(device, file_system, options):
    with tempfile.TemporaryDirectory(prefix="tree-") as root, \
            filesystems.mounted(file_system, device, root, options) as tree:
        yield tree


def mounted_unreplayed(device, file_system):
    """Mounts the volume of a device without replaying a journal: its content must be right as it is."""
    return mounted_somewhere(device, file_system, kind_of(file_system).read_only_options)


@contextlib.contextmanager
def mounted(image, file_system, offset=0):
    """Mounts the volume in the image, as it is; yields the root directory."""
    with read_only_device(image, offset) as device, mounted_unreplayed(device, file_system) as root:
        yield root


def read_only_device(image, offset):
    """A read-only loop device for the image."""
    return attached(image, "--read-only", "--offset", str(offset))


def fsck(image, file_system, offset=0):
    """Checks the image with the file system's own tool; raises ImageError with the tool's output."""
    kind = kind_of(file_system)
    with (replayed(image, file_system, offset) if kind.needs_replay
          else read_only_device(image, offset)) as device:
        check(*kind.check, device)


@contextlib.contextmanager
def replayed(image, file_system, offset=0):
    """A loop device for a copy of the image whose journal the kernel has replayed."""
    with tempfile.NamedTemporaryFile(dir=pathlib.Path(image).parent, prefix="replay-") as copy:
        run("cp", "--reflink=auto", image, copy.name)
        with attached(copy.name, "--offset", str(offset)) as device:
            try:
                with mounted_somewhere(device, file_system, kind_of(file_system).writable_options):
                    pass
            except OSError as error:
                raise ImageError(f"{image}: {error}") from error
            yield device


def check(*command):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
                          timeout=SECONDS)
    if done.returncode != 0:
        raise ImageError(f"{' '.join(command)}: status {done.returncode}; it printed:\n{done.stdout}")


class Entry(typing.NamedTuple):
    """The properties of a file. `content` is a hash of the file's data, or the target of a symbolic link. The
    size of a directory is 0, as ntfs-3g reports different sizes for it from mount to mount."""

    mode: str
    owner: int
    group: int
    size: int
    modified: int
    content: str


def tree_hashes(root):
    """The entries of all files in a tree, by relative path, except the files of the driver and the agent."""
    root = pathlib.Path(root)
    own = {root / name for name in OWN_FILES}
    return {str(path.relative_to(root)): entry_of(path)
            for path in sorted(root.rglob("*")) if path not in own}


def entry_of(path):
    status = path.lstat()
    content = ""
    if stat.S_ISREG(status.st_mode):
        with open(path, "rb") as file:
            content = hashlib.file_digest(file, "sha256").hexdigest()
    elif stat.S_ISLNK(status.st_mode):
        content = os.readlink(path)
    size = 0 if stat.S_ISDIR(status.st_mode) else status.st_size
    return Entry(stat.filemode(status.st_mode), status.st_uid, status.st_gid, size, status.st_mtime_ns,
                 content)


@dataclasses.dataclass
class Comparison:
    """The differences between blocks, by their offset in the volume. Blocks in `unwritten` are in `differing`
    too: they still hold poison."""

    block_size: int
    blocks: int = 0
    differing: list = dataclasses.field(default_factory=list)
    unwritten: list = dataclasses.field(default_factory=list)

    def check(self):
        if self.differing:
            offsets = ", ".join(map(str, self.differing[:SHOWN]))
            raise ImageError(f"{len(self.differing)} of {self.blocks} used blocks of {self.block_size} bytes "
                             f"differ, {len(self.unwritten)} of them never written; the first at {offsets}")
        return self

    def add(self, at, expected, found):
        """Compares a piece of the volume with the same piece of the image."""
        self.blocks += len(expected) // self.block_size
        if expected == found:
            return
        for begin in range(0, len(expected), self.block_size):
            block = slice(begin, begin + self.block_size)
            if expected[block] != found[block]:
                self.differing.append(at + begin)
                if is_poison(found[block]):
                    self.unwritten.append(at + begin)


def compare_used(volume, image, file_system, offset=0, excluded=OWN_FILES):
    """Compares every block that is used according to the file system of the volume, or of its snapshot. Skips
    the blocks of the files in `excluded`, which are paths from the root."""
    truth = truth_of(volume, file_system)
    excluded_extents = extents_of_files(volume, file_system, excluded) if excluded else []
    comparison = Comparison(truth.block_size)
    with open(volume, "rb", buffering=0) as source, open(image, "rb", buffering=0) as target:
        for at, length in pieces(without(truth.used_extents(), excluded_extents)):
            expected = os.pread(source.fileno(), length, at)
            if len(expected) != length:
                raise OSError(f"{volume} ends at {at + len(expected)}, within a used block")
            comparison.add(at, expected, os.pread(target.fileno(), length, offset + at))
    return comparison


def without(extents, excluded):
    """The extents, in order, without the parts that are in `excluded`."""
    holes = sorted(excluded)
    for begin, length in extents:
        end = begin + length
        while holes and sum(holes[0]) <= begin:
            holes.pop(0)
        for hole, hole_length in holes:
            if hole >= end:
                break
            if begin < hole:
                yield begin, hole - begin
            begin = max(begin, hole + hole_length)
        if begin < end:
            yield begin, end - begin


def pieces(extents):
    for begin, length in extents:
        for at in range(begin, begin + length, PIECE):
            yield at, min(PIECE, begin + length - at)


def extents_of_files(volume, file_system, names):
    """(offset, length) on the volume of these files; files that don't exist are skipped."""
    with tree_of(volume, file_system) as root:
        return [extent for name in names if (root / name).exists()
                for extent in extents_on(volume, file_system, root, name)]


def extents_on(volume, file_system, root, name):
    """(offset, length) on the volume of one of its files."""
    extents = kind_of(file_system).extents
    return extents(volume, root, name) if extents else extents_of(root / name)


def tree_of(volume, file_system):
    """A context with the root directory of a volume: where it is mounted already, or else mounted for the
    context."""
    found = subprocess.run(["findmnt", "--noheadings", "--first-only", "--raw", "--output", "TARGET",
                            "--source", volume], capture_output=True, text=True, check=False)
    if found.returncode == 0:
        return contextlib.nullcontext(pathlib.Path(unescape(found.stdout.strip())))
    if pathlib.Path(volume).is_block_device():
        return mounted_unreplayed(volume, file_system)
    return mounted(volume, file_system)


def unescape(path):
    r"""Decodes a path in which blanks and the like are written as \x20."""
    return re.sub(rb"\\x([0-9a-f]{2})", lambda code: bytes.fromhex(code[1].decode()), path.encode()).decode()


def extents_of(file):
    text = run("filefrag", "-e", "-s", "-v", file)
    found = re.search(r"blocks? of (\d+) bytes\)", text)
    unit = int(found[1])
    return [(int(begin) * unit, int(length) * unit) for begin, length in
            re.findall(r"^ +\d+: +\d+\.\. +\d+: +(\d+)\.\. +\d+: +(\d+):", text, re.MULTILINE)]
