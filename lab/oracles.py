"""Which blocks of a volume are used, according to programs that didn't make the volume. They share no code
with each other, so if two of them agree with a map, they confirm it independently.

    partclone("ntfs", image, 4096).free == sleuthkit("ntfs", image, 4096).free

Each function takes a device or an image, and the block size of the answer in bytes, where block 0 begins at
byte 0; it returns a Truth. If the volume can't be read, it raises an OSError.
"""
import pathlib
import re
import tempfile

from lab.commands import run
from lab.used_blocks import Truth

DOMAIN_LINE = re.compile(r"^0x([0-9A-F]+)\s+0x([0-9A-F]+)\s+([+?])$", re.MULTILINE)
UNIT_LINE = re.compile(r"^(\d+)\|([af])$", re.MULTILINE)


def partclone(program, volume, block_size):
    """Asks partclone.PROGRAM: "ntfs", "vfat" or "hfsp". It reports bytes: a block is used if any byte of it
    is, and the end of the volume may cut off the last block."""
    with tempfile.TemporaryDirectory(prefix="domain-") as directory:
        domain = pathlib.Path(directory) / "domain"
        run(f"partclone.{program}", "--domain", "--offset_domain=0", "--force", "--logfile", f"{domain}.log",
            "--source", volume, "--output", domain)
        found = [(int(begin, 16), int(length, 16), status)
                 for begin, length, status in DOMAIN_LINE.findall(domain.read_text(encoding="ascii"))]
    if not found:
        raise OSError(f"{volume}: partclone.{program} tells of no block")
    end = sum(found[-1][:2])
    free = [within(begin, begin + length, block_size) for begin, length, status in found if status == "?"]
    return Truth(-(-end // block_size), block_size, [(first, count) for first, count in free if count > 0])


def within(begin, end, block_size):
    """The blocks (first, count) that are completely between two offsets."""
    first = -(-begin // block_size)
    return first, end // block_size - first


def sleuthkit(kind, volume, block_size):
    """Asks blkls, which calls the file system `kind`: "ntfs", "fat" or "hfs". It reports units, whose size
    must be `block_size`: clusters of NTFS, sectors of FAT, allocation blocks of HFS+."""
    units = UNIT_LINE.findall(run("blkls", "-f", kind, "-l", "-e", volume))
    if not units:
        raise OSError(f"{volume}: blkls tells of no unit")
    free = [int(number) for number, status in units if status == "f"]
    return Truth(int(units[-1][0]) + 1, block_size, joined(free))


def joined(numbers):
    """Joins sorted numbers into ranges (first, count)."""
    ranges = []
    for number in numbers:
        if ranges and sum(ranges[-1]) == number:
            ranges[-1] = (ranges[-1][0], ranges[-1][1] + 1)
        else:
            ranges.append((number, 1))
    return ranges
