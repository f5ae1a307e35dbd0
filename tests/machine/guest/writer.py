"""A program that writes to a directory all the time, as a busy server does: writer.py DIRECTORY.

It overwrites pieces of a file at random places and syncs each to the disk; it also creates and deletes small
files. At the end of its standard input it reads back what it has written. It prints, as JSON, how often it
has written, the longest time that a write took in seconds, and what went wrong.
"""
import hashlib
import json
import os
import pathlib
import random
import select
import sys
import time

PIECE = 4096
PIECES = 512
PAUSE = 0.01
SMALL_FILES = 8


def is_to_end():
    return bool(select.select([sys.stdin], [], [], PAUSE)[0])


class Writer:
    def __init__(self, directory):
        self._directory = pathlib.Path(directory)
        self._random = random.Random(4)
        self._file = os.open(self._directory / "busy", os.O_RDWR | os.O_CREAT, 0o600)
        self._written = {}
        self.count = 0
        self.longest = 0.0

    def write(self):
        begin = time.monotonic()
        at = self._random.randrange(PIECES)
        content = self._random.randbytes(PIECE)
        os.pwrite(self._file, content, at * PIECE)
        os.fdatasync(self._file)
        self._written[at] = hashlib.sha256(content).digest()
        self.longest = max(self.longest, time.monotonic() - begin)
        self.count += 1
        if self.count % 16 == 0:
            self.replace_small_file()

    def replace_small_file(self):
        path = self._directory / f"small{self._random.randrange(SMALL_FILES)}"
        path.unlink(missing_ok=True)
        path.write_bytes(self._random.randbytes(self._random.randrange(4 * PIECE)))

    def wrong(self):
        """The places where the disk has other data than was written."""
        os.posix_fadvise(self._file, 0, 0, os.POSIX_FADV_DONTNEED)
        return [at for at, digest in self._written.items()
                if hashlib.sha256(os.pread(self._file, PIECE, at * PIECE)).digest() != digest]


def main():
    writer = Writer(sys.argv[1])
    errors = []
    try:
        while not is_to_end():
            writer.write()
        errors += [f"piece {at} is not what was written" for at in writer.wrong()]
    except OSError as error:
        errors.append(str(error))
    print(json.dumps({"count": writer.count, "longest": writer.longest, "errors": errors}))


if __name__ == "__main__":
    main()
