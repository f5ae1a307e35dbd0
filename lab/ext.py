"""ext2, ext3 and ext4, by their own tools."""
import re

from lab import mounts
from lab.commands import run
from lab.kind import Kind, Seed
from lab.used_blocks import Truth


def number(text, name):
    """One of those at the top of what dumpe2fs prints."""
    return int(re.search(rf"^{name}: +(\d+)", text, re.MULTILINE)[1])


def ranges_in(text):
    """(first, count) of ranges of numbers as the tools print them: 1-3, 7."""
    for first, last in re.findall(r"(\d+)(?:-(\d+))?", text):
        yield int(first), int(last or first) - int(first) + 1


def truth(volume):
    text = run("dumpe2fs", volume)
    free = [found for ranges in re.findall(r"^  Free blocks: (.*)$", text, re.MULTILINE)
            for found in ranges_in(ranges)]
    return Truth(number(text, "Block count"), number(text, "Block size"), free)


def sleeping(volume):
    """The structures of groups that were never used, and what lies in front of the first group."""
    text = run("dumpe2fs", volume)
    size = number(text, "Block size")
    found = [(0, number(text, "First block") * size)]
    for group in re.split(r"^Group (?=\d+:)", text, flags=re.MULTILINE)[1:]:
        if "BLOCK_UNINIT" not in group.splitlines()[0]:
            continue
        first, last = map(int, re.search(r"Blocks (\d+)-(\d+)", group).groups())
        places = re.findall(r"(?:superblock|descriptors?|blocks|bitmap|table) at (\d+(?:-\d+)?)", group)
        found += [(begin * size, blocks * size) for begin, blocks in ranges_in(", ".join(places))
                  if first <= begin <= last]
    return sorted(found)


def doubtful(_volume):
    return set()


def descriptors_at(block_size):
    """Where the descriptors of the groups begin: in the block behind that of the super block."""
    return max(2048, block_size)


def structures(device, _root):
    return {descriptors_at(truth(device).block_size): "e2fsck .* status [1-9]"}


def regions(image):
    text = run("dumpe2fs", image)
    size = number(text, "Block size")
    groups = len(re.findall(r"^Group \d+:", text, re.MULTILINE))
    bitmaps = re.findall(r"Block bitmap at (\d+)", text)
    return [(1024, 1024), (descriptors_at(size), groups * 64),
            *((int(block) * size, size) for block in bitmaps)]


SMALL_GROUPS = ("-b", "1024", "-g", "1024")

KIND = Kind(
    name="ext",
    makers={name: (f"mkfs.{name}", "-q", "-F") for name in ("ext2", "ext3", "ext4")},
    label_option="-L",
    mebibytes=64,
    mount=mounts.mounted,
    look="ro,noload",
    write="rw",
    calm="noinit_itable", # a new one has tables that the kernel fills when it is idle
    check=("e2fsck", "-fn"),
    needs_replay=False,
    truth=truth,
    sleeping=sleeping,
    doubtful=doubtful,
    structures=structures,
    regions=regions,
    seeds=(
        Seed("ext2", "ext2", 9, ("-b", "1024")),
        Seed("ext4", "ext4", 20, SMALL_GROUPS),
        Seed("ext4_4k", "ext4", 64, ("-b", "4096", "-O", "64bit,^has_journal")),
        Seed("ext4_scattered", "ext4", 20, (*SMALL_GROUPS, "-O", "^flex_bg,^has_journal")),
        Seed("untouched", "ext4", 20,
             (*SMALL_GROUPS, "-O", "sparse_super2,^flex_bg,^resize_inode,^has_journal")),
        Seed("meta", "ext4", 20, (*SMALL_GROUPS, "-O", "meta_bg,^resize_inode")),
        Seed("bigalloc", "ext4", 20, ("-O", "bigalloc")),
    ),
)
