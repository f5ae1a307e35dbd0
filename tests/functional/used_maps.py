"""The used blocks according to the parsers (by bek-usedmap), to the file systems' own tools, and to other
tools."""
import functools
import json
import os
import subprocess

from lab import fat, oracles, poison
from lab.commands import run
from lab.daemon import program
from lab.filesystems import kind_of
from lab.images import fsck, mounted, pieces, tree_hashes

BUILD = program().parent
TOOL = BUILD / "bek-usedmap"
# The oracles that are right for all volumes of a kind; they take an image and its block size.
ORACLES = {
    "fat": (lambda image, _block_size: fat.truth_by(functools.partial(oracles.sleuthkit, "fat"), image),),
    "ntfs": (functools.partial(oracles.partclone, "ntfs"), functools.partial(oracles.sleuthkit, "ntfs")),
}


class Comparison:
    """The used blocks according to the agent, compared with those of the file system's own tool."""

    def __init__(self, volume, file_system, *options, truth=None):
        self._volume = volume
        self._kind = kind_of(file_system)
        self.truth = truth = truth or self._kind.truth(volume)
        found = json.loads(run(TOOL, "--json", *options, volume))
        assert found["blockSize"] == truth.block_size
        assert found["blocks"] == truth.blocks or (self._kind.map_exceeds_file_system
                                                   and found["blocks"] > truth.blocks)
        assert (found["blocks"] - 1) * truth.block_size < found["deviceBytes"]
        self.ranges = [(first, min(count, truth.blocks - first)) for first, count in found["ranges"]
                       if first < truth.blocks]
        self.used = {block for first, count in self.ranges for block in range(first, first + count)}
        truly_used = set(range(truth.blocks)) - truth.free
        driver_file_blocks = (found["driverFileBytes"] or 0) // truth.block_size
        self.lost = truly_used - self.used         # a backup would leave these out
        if len(self.lost) == driver_file_blocks:   # as it does with the snapshot driver's files
            self.lost = set()
        self.kept = self.used & truth.free         # a backup would copy these needlessly

    @property
    def unexplained(self):
        """The blocks that differ, except for free ones that the agent may report as used."""
        return self.lost | (self.kept - self._kind.may_be_reported_used(self._volume))

    def note(self, matrix, name):
        matrix.append((name, self.truth.blocks, len(self.used), len(self.lost), len(self.kept)))
        return self

    def rebuild(self, path):
        """Makes an image full of poison, and copies to it the blocks that the agent reports as used."""
        size = self.truth.block_size
        poison.make_image(path, os.path.getsize(self._volume))
        with open(self._volume, "rb", buffering=0) as source, open(path, "r+b", buffering=0) as target:
            for at, length in pieces((first * size, count * size) for first, count in self.ranges):
                os.pwrite(target.fileno(), os.pread(source.fileno(), length, at), at)
        return path


def refused(volume, *options):
    """The error text of the tool when it can't read the map."""
    done = subprocess.run([TOOL, *options, volume], capture_output=True, text=True, check=False)
    assert done.returncode == 1 and done.stdout == ""
    assert done.stderr.endswith("the map of used blocks can't be read; a backup would copy every block\n")
    return done.stderr


def agreed(image, file_system, *options, by=None):
    """The Comparison of an image for which the agent, the file system's tool and the oracles agree."""
    found = Comparison(image, file_system, *options)
    assert not found.unexplained
    for oracle in by or ORACLES[kind_of(file_system).name]:
        told = oracle(image, found.truth.block_size)
        assert (told.blocks, told.free) == (found.truth.blocks, found.truth.free), oracle
    return found


def check_rebuilt(found, path, file_system, tree, check=fsck):
    """Checks that an image of only the blocks that the agent reports as used is a sound file system with that
    tree."""
    found.rebuild(path)
    check(path, file_system)
    with mounted(path, file_system) as root:
        assert tree_hashes(root) == tree
