"""ext2, ext3 and ext4, examined with their own tools."""
import re

from lab import mounts
from lab.commands import run
from lab.kind import Kind, Sample, Seed
from lab.used_blocks import Truth


def number(text, name):
    """A number from the header that dumpe2fs prints."""
    return int(re.search(rf"^{name}: +(\d+)", text, re.MULTILINE)[1])


def ranges_in(text):
    """Yields (first, count) for each range of numbers in the format of the tools: 1-3, 7."""
    for first, last in re.findall(r"(\d+)(?:-(\d+))?", text):
        yield int(first), int(last or first) - int(first) + 1


def truth(volume):
    text = run("dumpe2fs", volume)
    free = [found for ranges in re.findall(r"^  Free blocks: (.*)$", text, re.MULTILINE)
            for found in ranges_in(ranges)]
    return Truth(number(text, "Block count"), number(text, "Block size"), free)


def unknown_to_driver(volume):
    """The extents of the structures in block groups that were never used, and of what lies before the first
    group."""
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


def may_be_reported_used(_volume):
    return set()


def descriptors_at(block_size):
    """Where the group descriptors begin: in the block after the superblock's."""
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

USUAL = (
    Sample("ext4 1K", 90, "ext4", ("-b", "1024")),
    Sample("ext4 4K", 180, "ext4", ("-b", "4096")),
)

KIND = Kind(
    name="ext",
    makers={name: (f"mkfs.{name}", "-q", "-F") for name in ("ext2", "ext3", "ext4")},
    label_option="-L",
    mebibytes=64,
    mount=mounts.mounted,
    can_freeze=True,
    read_only_options="ro,noload",
    writable_options="rw",
    quiet_options="noinit_itable", # on a new volume the kernel initializes inode tables when it is idle
    check=("e2fsck", "-fn"),
    needs_replay=False,
    truth=truth,
    unknown_to_driver=unknown_to_driver,
    may_be_reported_used=may_be_reported_used,
    structures=structures,
    usual=USUAL,
    samples=(
        *USUAL,
        Sample("ext2 1K", 90, "ext2", ("-b", "1024")),
        Sample("ext2 2K", 90, "ext2", ("-b", "2048")),
        Sample("ext2 4K", 180, "ext2", ("-b", "4096")),
        Sample("ext3 1K", 90, "ext3", ("-b", "1024")),
        Sample("ext3 2K", 90, "ext3", ("-b", "2048")),
        Sample("ext3 4K", 180, "ext3", ("-b", "4096")),
        Sample("ext4 2K", 90, "ext4", ("-b", "2048")),
        Sample("ext4 1K 64bit", 90, "ext4", ("-b", "1024", "-O", "64bit")),
        Sample("ext4 4K 64bit", 300, "ext4", ("-b", "4096", "-O", "64bit")),
        Sample("ext4 4K without 64bit", 300, "ext4", ("-b", "4096", "-O", "^64bit")),
        Sample("ext4 1K without flex_bg", 90, "ext4", ("-b", "1024", "-O", "^flex_bg")),
        Sample("ext4 4K without flex_bg", 300, "ext4", ("-b", "4096", "-O", "^flex_bg")),
        Sample("ext4 1K flex_bg of 4 groups", 90, "ext4", ("-b", "1024", "-G", "4")),
        Sample("ext4 1K uninit_bg", 90, "ext4", ("-b", "1024", "-O", "^metadata_csum,uninit_bg")),
        Sample("ext4 1K uninit_bg without flex_bg", 90, "ext4",
               ("-b", "1024", "-O", "^metadata_csum,uninit_bg,^flex_bg")),
        Sample("ext4 1K groups of 1000 blocks", 90, "ext4", ("-b", "1024", "-g", "1000")),
        Sample("ext4 4K short last group", 131, "ext4", ("-b", "4096")),
        Sample("ext4 1K sparse_super2", 90, "ext4", ("-b", "1024", "-O", "sparse_super2")),
        Sample("ext4 1K sparse_super2 without flex_bg", 90, "ext4",
               ("-b", "1024", "-O", "sparse_super2,^flex_bg,^resize_inode")),
        Sample("ext4 1K without sparse_super", 90, "ext4",
               ("-b", "1024", "-O", "^sparse_super,^resize_inode")),
        Sample("ext4 1K without resize_inode, flex_bg", 90, "ext4",
               ("-b", "1024", "-O", "^resize_inode,^flex_bg")),
        Sample("ext4 2K inodes of 1024 bytes", 90, "ext4", ("-b", "2048", "-I", "1024", "-O", "^flex_bg")),
        Sample("ext4 4K as newer tools make it", 300, "ext4",
               ("-b", "4096", "-O", "metadata_csum_seed,orphan_file")),
        Sample("ext4 1K mmp, inline_data, verity", 90, "ext4",
               ("-b", "1024", "-O", "mmp,inline_data,verity")),
        Sample("ext4 4K fast_commit, large_dir, ea_inode", 300, "ext4",
               ("-b", "4096", "-O", "fast_commit,large_dir,ea_inode,stable_inodes")),
        Sample("ext4 4K encrypt", 300, "ext4", ("-b", "4096", "-O", "encrypt")),
        Sample("ext4 1K meta_bg with one descriptor block", 120, "ext4",
               ("-b", "1024", "-O", "meta_bg,^resize_inode")),
    ),
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
