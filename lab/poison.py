"""What an image holds where nothing was written: bytes that no file system takes for its own, never zeros.

A block that a backup should have written and hasn't then shows, in a comparison and to fsck.
"""
import os

MARK = b"\xde\xadnever written!"
SEED_BYTES = 4 << 20


def make_image(path, size):
    """Makes a file of this size that is poison all through.

    The poison repeats, so that a file system which can share blocks (XFS) stores it once: images then cost
    what is written to them. Elsewhere, and in memory too, it is copied: well under a second a gibibyte."""
    seed = (MARK * (SEED_BYTES // len(MARK)))[:size]
    with open(path, "x+b", buffering=0) as image:
        image.write(seed)
        os.fsync(image.fileno()) # a file system can't share what it hasn't placed yet
        at = len(seed)
        while at < size:
            at += os.copy_file_range(image.fileno(), image.fileno(), min(len(seed), size - at), 0, at)


def is_poison(content):
    """Whether bytes from a place that the length of the mark divides have never been written."""
    return bool(content) and content == (MARK * (len(content) // len(MARK) + 1))[:len(content)]
