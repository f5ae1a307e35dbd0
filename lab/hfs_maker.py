#!/usr/bin/env python3
"""Makes an HFS+ volume, with as many files as asked for, in an image or on a device.

The header is at byte 1024, its backup 1024 bytes before the end, and a copy at byte 0 unless
--usual-header-only is given. Times are fixed, so equal options make equal volumes.
"""
import argparse
import os
import pathlib
import random
import struct
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from lab.hfs_tree import BIG_KEYS, BINARY, VARIABLE_INDEX_KEYS, Tree  # noqa: E402

BLOCK_SIZES = [512 << shift for shift in range(13)]
USUAL_HEADER = 1024
HEADER_SIZE = 512
IN_A_FORK = 8 # extents
GAP = 3       # free blocks between the fragments of a file
NOW = 3_800_000_000 # seconds since 1904

HEADER = struct.Struct(">2sHI4s15IQ24xQ")
FORK = struct.Struct(">QII")
EXTENT = struct.Struct(">II")
EXTENT_KEY = struct.Struct(">HBxII")
DATES = (NOW,) * 5
FOLDER = struct.Struct(">HHII5I16s16x16xII")
FILE = struct.Struct(">HH4xI5I16s16x16xII")
PERMISSIONS = struct.Struct(">IIBBHI")
UNMOUNTED, INCONSISTENT, JOURNALED = 1 << 8, 1 << 11, 1 << 13
FOLDER_RECORD, FILE_RECORD, FOLDER_THREAD, FILE_THREAD = 1, 2, 3, 4
HAS_THREAD = 2
PARENT_OF_ROOT, ROOT, EXTENTS_FILE, CATALOG_FILE, ALLOCATION_FILE, FIRST_FREE_ID = 1, 2, 3, 4, 6, 16
LONGEST_CATALOG_KEY = 516
VOLUME_ID = 0x6F0C9F2E57A54A0B
DIRECTORIES = 4
JOURNAL_SIZE = 512 << 10
JOURNAL_INFO = struct.Struct(">I32xQQ128x")
IN_THE_VOLUME = 1
JOURNAL_HEADER = struct.Struct("<IIQQQII4xI")
JOURNAL_MAGIC, JOURNAL_ENDIAN = 0x4A4E4C78, 0x12345678
CHECKSUM_PLACE = 36


class Space:
    """The blocks of a volume: which ones are used, and where the next ones are allocated."""

    def __init__(self, blocks, block_size):
        self.blocks = blocks
        self.block_size = block_size
        self.next = 0
        self.free = blocks
        self._bits = bytearray(-(-blocks // 8))

    def needed(self, length):
        """The number of blocks for `length` bytes."""
        return -(-length // self.block_size)

    def use(self, first, count):
        if first + count > self.blocks:
            raise ValueError("the volume is too small")
        for block in range(first, first + count):
            assert not self._bits[block // 8] & 0x80 >> block % 8
            self._bits[block // 8] |= 0x80 >> block % 8
        self.free -= count

    def take(self, length, fragments=1):
        """Allocates extents (first, count) for `length` bytes. If there are several, free blocks follow each
        of them."""
        needed = self.needed(length)
        fragments = min(fragments, needed)
        extents = []
        for index in range(fragments):
            count = needed // fragments + (index < needed % fragments)
            self.use(self.next, count)
            extents.append((self.next, count))
            self.next += count + (GAP if fragments > 1 else 0)
        return extents

    def content(self):
        """The bitmap as bytes."""
        return bytes(self._bits)


class OwnedFile:
    """A file of the volume: its ID, its length and its extents."""

    def __init__(self, number, length, extents):
        self.number = number
        self.length = length
        self.extents = extents

    def fork(self, clump=0):
        return (FORK.pack(self.length, clump, sum(count for _, count in self.extents))
                + packed(self.extents[:IN_A_FORK]))

    def overflow(self):
        """The records of the extents tree: the extents that don't fit in the fork."""
        for index in range(IN_A_FORK, len(self.extents), IN_A_FORK):
            before = sum(count for _, count in self.extents[:index])
            yield (EXTENT_KEY.pack(EXTENT_KEY.size - 2, 0, self.number, before),
                   packed(self.extents[index:index + IN_A_FORK]))


class Maker:
    """Lays out a volume and writes it."""

    def __init__(self, image, options):
        self._options = options
        self._image = image
        self._size = image.seek(0, os.SEEK_END)
        self._space = Space(self._size // options.block_size, options.block_size)

    def make(self):
        self._use_headers()
        length = -(-self._space.blocks // 8)
        allocation = OwnedFile(ALLOCATION_FILE, length, self._space.take(length, self._options.fragments))
        files = list(self._user_files())
        extents, extents_tree = self._extents_file([allocation, *files])
        catalog, catalog_tree = self._catalog_file(files)
        journal = self._make_journal() if self._options.journaled else 0
        for number, file in enumerate(files):
            if not self._options.hollow:
                self._write(file, content_of(number))
        self._write(extents, extents_tree)
        self._write(catalog, catalog_tree)
        self._write(allocation, self._space.content())
        self._write_headers(self._header(journal, len(files), allocation, extents, catalog))

    def _use_headers(self):
        head = self._space.needed(USUAL_HEADER + HEADER_SIZE)
        self._space.use(0, head)
        self._space.next = head
        backup = (self._size - USUAL_HEADER) // self._space.block_size
        self._space.use(backup, self._space.blocks - backup)

    def _user_files(self):
        """Every third file is fragmented, and every third of these has more extents than fit in a fork."""
        for number in range(self._options.files):
            fragments = 1 if number % 3 else 11 if number % 9 == 0 else 4
            length = length_of(number)
            yield OwnedFile(FIRST_FREE_ID + DIRECTORIES + number, length, self._space.take(length, fragments))

    def _extents_file(self, files):
        records = sorted(record for file in files for record in file.overflow())
        return self._tree_file(EXTENTS_FILE, Tree(records, EXTENT_KEY.size - 2, depth=self._options.depth,
                                                  stale=self._options.stale))

    def _catalog_file(self, files):
        return self._tree_file(CATALOG_FILE, Tree(sorted(catalog_records(files), key=catalog_order),
                                                  LONGEST_CATALOG_KEY,
                                                  attributes=BIG_KEYS | VARIABLE_INDEX_KEYS,
                                                  compare=BINARY if self._options.case_sensitive else 0))

    def _tree_file(self, number, tree):
        content = tree.content(self._space.block_size)
        return OwnedFile(number, len(content), self._space.take(len(content))), content

    def _make_journal(self):
        """Makes an empty journal. Returns the number of the block that says where it is."""
        (info, _), = self._space.take(JOURNAL_INFO.size)
        (first, count), = self._space.take(JOURNAL_SIZE)
        place, length = (part * self._space.block_size for part in (first, count))
        self._put(info * self._space.block_size, JOURNAL_INFO.pack(IN_THE_VOLUME, place, length))
        self._put(place, journal_header(length))
        return info

    def _header(self, journal, files, allocation, extents, catalog):
        options, space = self._options, self._space
        attributes = (not options.unclean) * UNMOUNTED | options.inconsistent * INCONSISTENT
        signature, version = (b"HX", 5) if options.case_sensitive else (b"H+", 4)
        if options.journaled:
            attributes |= JOURNALED
        clump = 4 * space.block_size
        packed_header = HEADER.pack(signature, version, attributes, b"HFSJ" if options.journaled else b"10.0",
                                    journal, NOW, NOW, 0, NOW, files, DIRECTORIES, space.block_size,
                                    space.blocks, space.free, space.next, clump, clump,
                                    FIRST_FREE_ID + DIRECTORIES + files, 1, 1, options.volume_id)
        forks = (file.fork(space.block_size) for file in (allocation, extents, catalog))
        return (packed_header + b"".join(forks)).ljust(HEADER_SIZE, b"\0")

    def _write_headers(self, header):
        self._put(USUAL_HEADER, header)
        self._put(self._size - USUAL_HEADER, header)
        if not self._options.usual_header_only:
            self._put(0, header)

    def _write(self, file, content):
        done = 0
        for first, count in file.extents:
            length = count * self._space.block_size
            self._put(first * self._space.block_size, content[done:done + length])
            done += length

    def _put(self, place, content):
        self._image.seek(place)
        self._image.write(content)


def length_of(number):
    """The length of a file in bytes, by its number."""
    return 1 + number * 7919 % 97 * 2000


def content_of(number):
    """The content of a file, by its number."""
    return random.Random(number).randbytes(length_of(number))


def path_of(number):
    """The path of a file, by its number."""
    return f"d{number % DIRECTORIES}/f{number}"


def packed(extents):
    """The bytes of eight extents, padded with zeros."""
    return b"".join(EXTENT.pack(*extent) for extent in extents).ljust(IN_A_FORK * EXTENT.size, b"\0")


def catalog_records(files):
    """(key, value) of all directories and files, and of their thread records, which lead from an ID to its
    parent."""
    yield from folder(PARENT_OF_ROOT, "lab", ROOT, DIRECTORIES)
    for number in range(DIRECTORIES):
        inside = len(files[number::DIRECTORIES])
        yield from folder(ROOT, f"d{number}", FIRST_FREE_ID + number, inside)
    for number, file in enumerate(files):
        parent, name = FIRST_FREE_ID + number % DIRECTORIES, f"f{number}"
        record = FILE.pack(FILE_RECORD, HAS_THREAD, file.number, *DATES, permissions(0o100644), 0, 0)
        yield catalog_key(parent, name), record + file.fork() + bytes(FORK.size + IN_A_FORK * EXTENT.size)
        yield catalog_key(file.number, ""), thread(FILE_THREAD, parent, name)


def folder(parent, name, number, inside):
    yield catalog_key(parent, name), FOLDER.pack(FOLDER_RECORD, 0, inside, number, *DATES,
                                                 permissions(0o40755), 0, 0)
    yield catalog_key(number, ""), thread(FOLDER_THREAD, parent, name)


def thread(kind, parent, name):
    return struct.pack(">HHI", kind, 0, parent) + name_of(name)


def catalog_key(parent, name):
    rest = struct.pack(">I", parent) + name_of(name)
    return struct.pack(">H", len(rest)) + rest


def catalog_order(record):
    """The sort key of a record: the parent directory, then the name without its length."""
    key, _ = record
    return key[2:6], key[8:]


def name_of(text):
    return struct.pack(">H", len(text)) + text.encode("utf-16-be")


def permissions(mode):
    return PERMISSIONS.pack(0, 0, 0, 0, mode, 1)


def journal_header(length):
    """The header of a journal with nothing to replay, in little-endian byte order."""
    head = JOURNAL_HEADER.pack(JOURNAL_MAGIC, JOURNAL_ENDIAN, HEADER_SIZE, HEADER_SIZE, length, 4096, 0,
                               HEADER_SIZE)
    checksum = 0
    for byte in head:
        checksum = (checksum << 8 ^ checksum + byte) & 0xFFFFFFFF
    return head[:CHECKSUM_PLACE] + struct.pack("<I", ~checksum & 0xFFFFFFFF) + head[CHECKSUM_PLACE + 4:]


def parsed(arguments):
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--block-size", type=int, default=4096, choices=BLOCK_SIZES,
                        metavar="BYTES", help="a power of two from 512 to 2097152; 4096 by default")
    parser.add_argument("--files", type=int, default=0, help="how many, in four directories")
    parser.add_argument("--hollow", action="store_true", help="what files hold isn't written")
    parser.add_argument("--fragments", type=int, default=1, help="of the bitmap, with free blocks between")
    parser.add_argument("--depth", type=int, help="levels of the tree of extents")
    parser.add_argument("--stale", action="store_true", help="leave something behind the records of indexes")
    parser.add_argument("--case-sensitive", action="store_true")
    parser.add_argument("--journaled", action="store_true")
    parser.add_argument("--unclean", action="store_true", help="as if it was not unmounted")
    parser.add_argument("--inconsistent", action="store_true", help="as if it was found to be damaged")
    parser.add_argument("--volume-id", type=lambda text: int(text, 16), default=VOLUME_ID,
                        help="16 hexadecimal digits; what Linux calls the UUID comes of it")
    parser.add_argument("--usual-header-only", action="store_true", help="no copy at byte 0")
    parser.add_argument("image")
    return parser.parse_args(arguments)


def main(arguments):
    options = parsed(arguments)
    try:
        with open(options.image, "r+b") as image:
            Maker(image, options).make()
    except OSError as error:
        sys.exit(f"lab/hfs_maker.py: {options.image}: {error.strerror}; it must be a device, or a file of "
                 "the volume's size, as truncate --size makes it")
    except (ValueError, struct.error) as error:
        sys.exit(f"lab/hfs_maker.py: {options.image}: {error}")


if __name__ == "__main__":
    main(sys.argv[1:])
