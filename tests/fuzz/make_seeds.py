#!/usr/bin/env python3
"""usage: lab/namespace tests/fuzz/make_seeds.py DIRECTORY

Makes the seeds of the parsers' corpora from real file systems: what a parser reads of them, as SparseVolume.h
encodes it, in DIRECTORY/ext and DIRECTORY/xfs."""
import pathlib
import re
import struct
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "functional"))

from volume_images import age, make_image, mounted, riddle, run  # noqa: E402

UNIT = 64
LONGEST = 255


def encode(image, regions, sector_exponent=0, buffer_units=255):
    """The header, and a record for each run of lines of the regions that are not all zeros."""
    encoded = bytearray(struct.pack("<BBHI", sector_exponent, buffer_units, 0, image.stat().st_size // 1024))
    with open(image, "rb") as file:
        for offset, length in regions:
            file.seek(offset)
            data = file.read(length)
            lines = [data[i:i + UNIT] for i in range(0, len(data), UNIT)]
            for number, line in enumerate(lines):
                if any(line):
                    encoded += struct.pack("<IB", offset // UNIT + number, 1) + line.ljust(UNIT, b"\0")
    return bytes(encoded)


def ext_regions(image):
    text = run("dumpe2fs", image)
    size = int(re.search(r"^Block size: +(\d+)", text, re.MULTILINE)[1])
    groups = len(re.findall(r"^Group \d+:", text, re.MULTILINE))
    table = 2048 if size == 1024 else size
    bitmaps = re.findall(r"Block bitmap at (\d+)", text)
    return [(1024, 1024), (table, groups * 64)] + [(int(block) * size, size) for block in bitmaps]


def xfs_regions(image):
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


def main(target):
    work = pathlib.Path("/tmp/seeds")
    work.mkdir()
    ext = {"ext2": (9, "mkfs.ext2", "-b", "1024"), "ext4": (20, "mkfs.ext4", "-b", "1024", "-g", "1024"),
           "ext4_4k": (64, "mkfs.ext4", "-b", "4096", "-O", "64bit,^has_journal"),
           "ext4_scattered": (20, "mkfs.ext4", "-b", "1024", "-g", "1024", "-O", "^flex_bg,^has_journal"),
           "untouched": (20, "mkfs.ext4", "-b", "1024", "-g", "1024", "-O",
                         "sparse_super2,^flex_bg,^resize_inode,^has_journal"),
           "meta": (20, "mkfs.ext4", "-b", "1024", "-g", "1024", "-O", "meta_bg,^resize_inode"),
           "bigalloc": (20, "mkfs.ext4", "-O", "bigalloc")}
    for name, (mebibytes, *mkfs) in ext.items():
        image = make_image(work / name, mebibytes, *mkfs, "-q", "-F")
        with mounted(image, work / "mnt") as (_, directory):
            age(directory, 30, largest=100_000)
        (target / "ext" / name).write_bytes(encode(image, ext_regions(image)))
    xfs = {"xfs": (), "xfs_1k": ("-b", "size=1024"), "xfs_sectors": ("-s", "size=4096")}
    for name, options in xfs.items():
        image = make_image(work / name, 300, "mkfs.xfs", "-q", *options)
        with mounted(image, work / "mnt") as (_, directory):
            if name == "xfs_1k":
                riddle(directory / "riddled", 1024, 400)
            age(directory, 30, largest=100_000)
        (target / "xfs" / name).write_bytes(encode(image, xfs_regions(image)))
        if name == "xfs_sectors": # and on a device of such sectors
            (target / "xfs" / "xfs_sectors_4k").write_bytes(encode(image, xfs_regions(image), 3))
    image = make_image(work / "v4", 300, "mkfs.xfs", "-q", "-m", "crc=0")
    (target / "xfs" / "v4").write_bytes(encode(image, xfs_regions(image)))


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    for kind in "ext", "xfs":
        (pathlib.Path(sys.argv[1]) / kind).mkdir(parents=True, exist_ok=True)
    try:
        main(pathlib.Path(sys.argv[1]))
    except subprocess.CalledProcessError as error:
        sys.exit(f"{error}\n{error.stderr}")
