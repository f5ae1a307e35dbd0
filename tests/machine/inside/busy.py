"""A program that writes to a directory until its input ends, or the power is cut: busy.py DIRECTORY FIRST.

It overwrites pieces of a file at random places, and syncs now and then; it creates, renames and deletes
files. It prints the number of each file `kept-NUMBER`, from FIRST on, as soon as the file must survive a
power cut; the last `EXISTING_FILES` of them exist.
"""
import os
import pathlib
import random
import select
import sys

PIECE = 4096
PIECES = 2048
EXISTING_FILES = 16
PAUSE = 0.02


def content(number):
    """The content of a file, by its number."""
    made = random.Random(number)
    return made.randbytes(made.randrange(1, 4 * PIECE))


class Busy:
    def __init__(self, directory):
        self._directory = pathlib.Path(directory)
        self._folder = os.open(directory, os.O_RDONLY | os.O_DIRECTORY)
        self._file = os.open(self._directory / "busy", os.O_RDWR | os.O_CREAT, 0o600)
        self._random = random.Random()

    def write_pieces(self):
        for _ in range(self._random.randrange(1, 12)):
            os.pwrite(self._file, self._random.randbytes(PIECE), self._random.randrange(PIECES) * PIECE)
        if self._random.randrange(3) == 0:
            os.fdatasync(self._file)

    def replace_file(self, number):
        """Writes the file under another name first, as programs do whose files must survive a power cut."""
        made = self._directory / "new"
        with open(made, "wb") as file:
            file.write(content(number))
            file.flush()
            os.fsync(file.fileno())
        made.rename(self._directory / f"kept-{number}")
        os.fsync(self._folder)
        (self._directory / f"kept-{number - EXISTING_FILES}").unlink(missing_ok=True)


def main():
    busy = Busy(sys.argv[1])
    number = int(sys.argv[2])
    while not select.select([sys.stdin], [], [], PAUSE)[0]:
        busy.write_pieces()
        busy.replace_file(number)
        print(number, flush=True)
        number += 1


if __name__ == "__main__":
    main()
