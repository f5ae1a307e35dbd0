"""Which blocks of a volume are used, by programs that had no part in making it. None of them shares its
code with another, so two that agree with a map have come to it by ways of their own.

    partclone("ntfs", image, 4096).free == sleuthkit("ntfs", image, 4096).free

Each asks for a device or an image and the size in bytes of the blocks that the answer is to have, block 0
being that at byte 0, and returns a Truth. One that can't read the volume is an OSError.
"""
import pathlib
import re
import tempfile

from lab.commands import run
from lab.used_blocks import Truth

DOMAIN_LINE = re.compile(r"^0x([0-9A-F]+)\s+0x([0-9A-F]+)\s+([+?])$", re.MULTILINE)
UNIT_LINE = re.compile(r"^(\d+)\|([af])$", re.MULTILINE)


def partclone(program, volume, block_size):
    """By partclone.PROGRAM: "ntfs", "vfat" or "hfsp". It tells bytes: a block of which a byte is used is
    used, and the last one may be cut off by the end of the volume."""
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
    """The blocks (first, count) that lie between two places with all their bytes."""
    first = -(-begin // block_size)
    return first, end // block_size - first


def sleuthkit(kind, volume, block_size):
    """By blkls for a KIND of its own: "ntfs", "fat" or "hfs". It tells units, which `block_size` has to be
    the size of: clusters of NTFS, sectors of FAT, allocation blocks of HFS+."""
    units = UNIT_LINE.findall(run("blkls", "-f", kind, "-l", "-e", volume))
    if not units:
        raise OSError(f"{volume}: blkls tells of no unit")
    free = [int(number) for number, status in units if status == "f"]
    return Truth(int(units[-1][0]) + 1, block_size, joined(free))


def joined(numbers):
    """The ranges (first, count) that numbers in order make up."""
    ranges = []
    for number in numbers:
        if ranges and sum(ranges[-1]) == number:
            ranges[-1] = (ranges[-1][0], ranges[-1][1] + 1)
        else:
            ranges.append((number, 1))
    return ranges
