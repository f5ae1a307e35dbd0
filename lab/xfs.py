"""XFS, examined with its own tools."""
import re
import struct

from lab import mounts
from lab.commands import run
from lab.kind import Kind, Sample, Seed
from lab.used_blocks import Truth

FREE_LIST_ENTRIES = 119 # that the agent reads: 512 bytes, after a header with the checksum


def number(volume, place, name):
    """A number in a structure, by its name in xfs_db."""
    return int(run("xfs_db", "-r", "-c", place, "-c", f"p {name}", volume).split("=")[1])


def truth(volume):
    ag_blocks, blocks, block_size = (number(volume, "sb 0", name)
                                     for name in ("agblocks", "dblocks", "blocksize"))
    rows = re.findall(r"^ *(\d+) +(\d+) +(\d+)$",
                      run("xfs_db", "-r", "-c", "freesp -d", volume).split("from")[0], re.MULTILINE)
    free = [(int(group) * ag_blocks + int(first), int(length)) for group, first, length in rows]
    return Truth(blocks, block_size, free)


def unknown_to_driver(_volume):
    return []


def may_be_reported_used(volume):
    """The blocks that the sectors of the free lists name beyond the part that the agent reads."""
    ag_blocks = number(volume, "sb 0", "agblocks")
    return {group * ag_blocks + int(block) for group in range(number(volume, "sb 0", "agcount"))
            for entry, block in free_list_of(volume, group) if int(entry) >= FREE_LIST_ENTRIES}


def free_list_of(volume, group):
    """The used entries in the array of a group's free list, as text: (index, block)."""
    listed = run("xfs_db", "-r", "-c", f"agfl {group}", "-c", "p bno", volume).split("=", 1)[1]
    return re.findall(r"(\d+):(\d+)", listed)


def structures(device, root):
    """The superblock, and the block with a directory's inode. Without the superblock, no kernel mounts the
    volume."""
    inode = next(path for path in sorted(root.iterdir()) if path.is_dir()).stat().st_ino
    converted = run("xfs_db", "-r", "-c", f"convert ino {inode} fsbyte", device)
    at = int(re.search(r"\((\d+)\)", converted)[1])
    block_size = number(device, "sb 0", "blocksize")
    return {0: "mount: ", at // block_size * block_size: "xfs_repair .* status [1-9]"}


def regions(image):
    with open(image, "rb") as file:
        head = file.read(512)
        size, = struct.unpack_from(">I", head, 4)
        blocks, groups = struct.unpack_from(">II", head, 84)
        sector, = struct.unpack_from(">H", head, 102)
        for group in range(groups):
            begin = group * blocks * size
            yield begin, 3 * sector + 512
            file.seek(begin + sector)
            yield from tree_regions(file, begin, size, *struct.unpack_from(">I", file.read(512), 16))


def tree_regions(file, begin, size, root):
    """The blocks of a free-space tree in the group at `begin`."""
    pending = [root]
    while pending:
        address = begin + pending.pop() * size
        yield address, size
        file.seek(address)
        node = file.read(size)
        header = 56 if node[:4] == b"AB3B" else 16
        level, records = struct.unpack_from(">HH", node, 4)
        if level:
            pending += struct.unpack_from(f">{records}I", node, header + (size - header) // 12 * 8)


SMALLEST = 300
LARGE_SECTORS = ("-s", "size=4096")

USUAL = (
    Sample("xfs 4K 4 groups", 300, "xfs", ("-b", "size=4096", "-d", "agcount=4")),
)

KIND = Kind(
    name="xfs",
    makers={"xfs": ("mkfs.xfs", "-q", "-f")},
    label_option="-L",
    mebibytes=SMALLEST,
    mount=mounts.mounted,
    can_freeze=True,
    read_only_options="ro,nouuid,norecovery",
    writable_options="rw,nouuid",
    quiet_options="defaults",
    check=("xfs_repair", "-n"),
    needs_replay=True, # a freeze leaves superblock counters only in the journal
    truth=truth,
    unknown_to_driver=unknown_to_driver,
    may_be_reported_used=may_be_reported_used,
    structures=structures,
    usual=USUAL,
    samples=(
        *USUAL,
        Sample("xfs 4K 16 groups", 1280, "xfs", ("-b", "size=4096", "-d", "agcount=16")),
        Sample("xfs 4K 64 groups", 5120, "xfs", ("-b", "size=4096", "-d", "agcount=64")),
        Sample("xfs 1K 4 groups", 300, "xfs", ("-b", "size=1024", "-d", "agcount=4")),
        Sample("xfs 1K 6 groups", 480, "xfs", ("-b", "size=1024", "-d", "agcount=6")),
        Sample("xfs 4K without finobt, reflink", 300, "xfs", ("-m", "finobt=0,reflink=0")),
        Sample("xfs 4K rmapbt", 300, "xfs", ("-m", "rmapbt=1")),
        Sample("xfs 4K sectors of 512", 300, "xfs", ("-s", "size=512")),
        Sample("xfs 4K sectors of 4096", 300, "xfs", ("-s", "size=4096")),
        Sample("xfs 4K sectors of 2048, 6 groups", 480, "xfs", ("-s", "size=2048", "-d", "agcount=6")),
        Sample("xfs 1K sectors of 1024", 300, "xfs", ("-b", "size=1024", "-s", "size=1024")),
        Sample("xfs 4K bigtime, inobtcount, nrext64", 300, "xfs",
               ("-m", "bigtime=1,inobtcount=1", "-i", "nrext64=1,sparse=1")),
    ),
    regions=regions,
    seeds=(
        Seed("xfs", "xfs", SMALLEST),
        Seed("xfs_1k", "xfs", SMALLEST, ("-b", "size=1024"), holes=400),
        Seed("xfs_sectors", "xfs", SMALLEST, LARGE_SECTORS),
        Seed("xfs_sectors_4k", "xfs", SMALLEST, LARGE_SECTORS, sector_exponent=3),
        Seed("v4", "xfs", SMALLEST, ("-m", "crc=0"), is_mounted=False),
    ),
)
