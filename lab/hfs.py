"""HFS+ with a copy of its header at byte 0. The lab can't mount it; hfs_maker.py makes the volumes."""
import pathlib
import struct

from lab.kind import Kind, Sample, Seed
from lab.oracles import sleuthkit

MAKER = str(pathlib.Path(__file__).resolve().with_name("hfs_maker.py"))
USUAL_HEADER = 1024
HEADER_SIZE = 512
ALLOCATION_FORK, EXTENTS_FORK = 112, 192
ALLOCATION_FILE = 6
TREE_HEADER_SIZE = 14 + 106
EXTENT = struct.Struct(">II")
EXTENT_KEY = struct.Struct(">HBxII")
IN_A_FORK = 8
LEAF = -1


class HfsVolume:
    """The fields of a volume's header, and where its bitmap and its extents tree are."""

    def __init__(self, file):
        self._file = file
        self._header = self._read(USUAL_HEADER, HEADER_SIZE)
        self.block_size, self.blocks, self.free_blocks = struct.unpack_from(">3I", self._header, 40)
        self.tree = self._extents_at(self._header, EXTENTS_FORK + 16)
        self.bitmap = self._extents_at(self._header, ALLOCATION_FORK + 16) + self._overflow()

    def places(self, extents):
        """Extents of blocks as (offset, length) in bytes."""
        return [(first * self.block_size, count * self.block_size) for first, count in extents]

    def _read(self, place, length):
        self._file.seek(place)
        return self._file.read(length)

    def _extents_at(self, data, offset):
        found = [EXTENT.unpack_from(data, offset + index * EXTENT.size) for index in range(IN_A_FORK)]
        return [extent for extent in found if extent[1]]

    def _overflow(self):
        """The extents of the bitmap that the leaves of the extents tree hold."""
        data = b"".join(self._read(*place) for place in self.places(self.tree))
        node_size, = struct.unpack_from(">H", data, 14 + 18)
        found = {}
        for begin in range(node_size, len(data), node_size):
            node = data[begin:begin + node_size]
            kind, _, records = struct.unpack_from(">bBH", node, 8)
            for record in range(records if kind == LEAF else 0):
                place, = struct.unpack_from(">H", node, node_size - 2 - 2 * record)
                _, _, owner, start = EXTENT_KEY.unpack_from(node, place)
                if owner == ALLOCATION_FILE:
                    found[start] = self._extents_at(node, place + EXTENT_KEY.size)
        return [extent for start in sorted(found) for extent in found[start]]


def truth(volume):
    """The truth by blkls. Its number of free blocks must be the one in the volume header."""
    with open(volume, "rb") as file:
        facts = HfsVolume(file)
    found = sleuthkit("hfs", volume, facts.block_size)
    free = sum(count for _, count in found.free_ranges)
    if (found.blocks, free) != (facts.blocks, facts.free_blocks):
        raise OSError(f"{volume}: {free} of {found.blocks} blocks are free, and the header has "
                      f"{facts.free_blocks} of {facts.blocks}")
    return found


def unknown_to_driver(_volume):
    return []


def may_be_reported_used(_volume):
    return set()


def regions(image):
    with open(image, "rb") as file:
        facts = HfsVolume(file)
    yield 0, HEADER_SIZE
    yield USUAL_HEADER, HEADER_SIZE
    yield from facts.places(facts.bitmap)
    yield from facts.places(facts.tree)


def of_blocks(size):
    return ("--block-size", str(size))


SEVEN_PIECES = ("--fragments", "7")
MANY_PIECES = ("--fragments", "30", "--depth", "2")
USED = ("--files", "60")

KIND = Kind(
    name="hfs",
    makers={"hfsplus": (MAKER,)},
    label_option=None,
    mebibytes=32,
    mount=None,
    can_freeze=False,
    read_only_options=None,
    writable_options=None,
    quiet_options=None,
    check=("fsstat", "-f", "hfs"),
    needs_replay=False,
    truth=truth,
    unknown_to_driver=unknown_to_driver,
    may_be_reported_used=may_be_reported_used,
    structures=None,
    usual=None,
    samples=(
        Sample("hfsplus 512", 64, "hfsplus", (*of_blocks(512), *USED)),
        Sample("hfsplus 512 bitmap in 30 pieces", 64, "hfsplus", (*of_blocks(512), *USED, *MANY_PIECES)),
        Sample("hfsplus 512 bitmap in 101 pieces, tree of 3 levels", 256, "hfsplus",
               (*of_blocks(512), *USED, "--fragments", "101", "--depth", "3")),
        Sample("hfsplus 1K bitmap in 7 pieces", 120, "hfsplus", (*of_blocks(1024), *USED, *SEVEN_PIECES)),
        Sample("hfsplus 4K", 120, "hfsplus", USED),
        Sample("hfsplus 4K journaled", 120, "hfsplus", (*USED, "--journaled")),
        Sample("hfsplus 4K names by case", 120, "hfsplus", (*USED, "--case-sensitive")),
        Sample("hfsplus 8K", 120, "hfsplus", (*of_blocks(8192), *USED)),
        Sample("hfsplus 64K", 300, "hfsplus", (*of_blocks(65536), *USED)),
    ),
    regions=regions,
    seeds=(
        Seed("hfsplus", "hfsplus", 16, ("--files", "10"), is_mounted=False),
        Seed("hfsplus_512", "hfsplus", 64, (*of_blocks(512), *MANY_PIECES), is_mounted=False),
        Seed("hfsplus_3_levels", "hfsplus", 64, (*of_blocks(512), "--fragments", "31", "--files", "40",
                                                 "--depth", "3"), is_mounted=False),
        Seed("hfsplus_sectors_4k", "hfsplus", 64, (*of_blocks(512), *MANY_PIECES), is_mounted=False,
             sector_exponent=3),
        Seed("hfsplus_usual_header", "hfsplus", 16, ("--usual-header-only",), is_mounted=False),
    ),
)
