#!/usr/bin/env python3
"""usage: lab/namespace bench/block/aged_ext4.py BITMAP

Makes an ext4 of 40 GiB in memory, ages it by creating and deleting files of all sizes, and writes the bitmap
of its used blocks to BITMAP, least significant bit first. Which blocks the files get is up to the kernel;
which files there are is always the same.
"""

import os
import pathlib
import random
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2]))

from lab.arguments import new_file, parser_of  # noqa: E402
from lab.filesystems import truth_of  # noqa: E402
from lab.volume_images import make_image, mounted  # noqa: E402

BLOCK = 4096
BLOCKS = 40 * 2**30 // BLOCK
FULLEST = 0.85 # of the blocks
ROUNDS = 4


def grow(root, files, chance):
    """Creates files until the file system is as full as FULLEST says; their blocks are reserved, not
    written."""
    while os.statvfs(root).f_bavail > (1 - FULLEST) * BLOCKS:
        path = root / str(chance.randrange(100)) / str(len(files))
        path.parent.mkdir(exist_ok=True)
        size = min(int(chance.lognormvariate(11, 2.5)) + 1, 2**30)
        with open(path, "wb") as file:
            os.posix_fallocate(file.fileno(), 0, size)
        files.append(path)


def shrink(files, chance):
    for index in range(len(files)):
        if files[index] is not None and chance.random() < 0.3:
            files[index].unlink()
            files[index] = None


def age(root):
    chance = random.Random(1)
    files = []
    for _ in range(ROUNDS):
        grow(root, files, chance)
        shrink(files, chance)
        os.sync()


def used_bitmap(image):
    bitmap = bytearray(b"\xff" * (BLOCKS // 8))
    for first, count in truth_of(image, "ext4").free_ranges:
        for block in range(first, first + count):
            bitmap[block // 8] &= ~(1 << block % 8)
    return bitmap


def main():
    parser = parser_of(__doc__)
    parser.add_argument("bitmap", type=new_file, metavar="BITMAP")
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory() as directory:
        image = make_image(pathlib.Path(directory, "image"), BLOCKS * BLOCK >> 20, "ext4", "-b", str(BLOCK))
        with mounted(image, "ext4", pathlib.Path(directory, "root")) as (_, root):
            age(root)
        bitmap = used_bitmap(image)
    arguments.bitmap.write_bytes(bitmap)


main()
