"""The content of an image where nothing was written: bytes that no file system uses, and never zeros.

If a backup should have written a block and didn't, a comparison and fsck show it.
"""
import os

MARK = b"\xde\xadnever written!"
SEED_BYTES = 4 << 20


def make_image(path, size):
    """Makes a file of this size, full of poison.

    The poison repeats, so a file system that can share blocks (XFS) stores it once: images then cost only
    what is written to them. On other file systems, and in memory, it is copied, which takes well under a
    second per GiB."""
    seed = (MARK * (SEED_BYTES // len(MARK)))[:size]
    with open(path, "x+b", buffering=0) as image:
        image.write(seed)
        os.fsync(image.fileno()) # a file system can't share blocks that it hasn't allocated yet
        at = len(seed)
        while at < size:
            at += os.copy_file_range(image.fileno(), image.fileno(), min(len(seed), size - at), 0, at)


def is_poison(content):
    """Whether bytes have never been written. Their offset in the image must be a multiple of the mark's
    length."""
    return bool(content) and content == (MARK * (len(content) // len(MARK) + 1))[:len(content)]
