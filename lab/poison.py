"""What an image holds where nothing was written: bytes that no file system takes for its own, never zeros.

A block that a backup should have written and hasn't then shows, in a comparison and to fsck.
"""
import os

MARK = b"\xde\xadnever written!"
SEED_BYTES = 16 << 20


def make_image(path, size):
    """Makes a file of this size that is poison all through.

    The poison repeats, so that a file system which can share blocks (XFS) stores it once: images then cost
    what is written to them. Elsewhere, and in memory too, it is copied: about a second a gibibyte."""
    with open(path, "xb", buffering=0) as image:
        seed = MARK * (min(size, SEED_BYTES) // len(MARK) + 1)
        image.write(memoryview(seed)[:min(size, SEED_BYTES)])
        os.fsync(image.fileno()) # a file system can't share what it hasn't placed yet
        with open(path, "rb", buffering=0) as source:
            while (at := image.tell()) < size:
                length = min(at, size - at)
                image.seek(os.copy_file_range(source.fileno(), image.fileno(), length, 0, at), os.SEEK_CUR)


def is_poison(content):
    """Whether bytes from a place that the length of the mark divides have never been written."""
    return content == (MARK * (len(content) // len(MARK) + 1))[:len(content)]
