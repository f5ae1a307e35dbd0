"""The possible contents of a disk with a volatile cache after a power cut, from a record of all writes to it.

    recorded = record(machine, disk, log_disk)      # a device inside, to be used in place of the disk
    mark(machine, "synced")                         # a point of the record that can be found again
    end_record(machine); machine.stop()
    with WriteLog(log_disk.path) as log:
        replay = Replay(log, "disk.img")            # the disk as it was when the record began, empty here
        replay.advance(log.position_of("synced"))
        replay.copy_with_some_writes("state.img", random.Random(1))

The device-mapper target log-writes makes the record. It logs writes in the order in which they became
durable: writes that a flush makes durable come before that flush. So after a power cut, the disk holds all
writes up to the last flush, and any subset of the writes from there to the next flush.

Source of the format: drivers/md/dm-log-writes.c and admin-guide/device-mapper/log-writes.rst of Linux. All
numbers are little-endian. The first block has the magic number, the version, the number of entries (8 bytes
each) and the block size (4 bytes). Then each entry has a block with the first sector, the number of sectors,
flags and the length of the text (8 bytes each), and the text if it is a mark. The data follows, except for a
discard. A sector is as large as a block.
"""
import dataclasses
import os
import shlex
import struct

from lab.commands import run

NAME = "recorded"
MAGIC = 0x6a736677736872
VERSION = 1
FLUSH, FUA, DISCARD, MARK = 1, 2, 4, 8
LONGEST_MARK = 4096
CHUNK = 1 << 20


def record(machine, disk, log_disk):
    """Starts to record what is written; returns the device to write to."""
    machine.run("modprobe", "dm-log-writes")
    sectors = machine.run("blockdev", "--getsz", disk.device).stdout.strip()
    machine.run("dmsetup", "create", NAME, "--table",
                f"0 {sectors} log-writes {disk.device} {log_disk.device}")
    return f"/dev/mapper/{NAME}"


def mark(machine, text):
    """Adds a mark to the record, after all writes that are durable by now."""
    machine.run("dmsetup", "message", NAME, "0", "mark", shlex.quote(text))


def end_record(machine):
    """Ends the record. The device must not be in use any more."""
    machine.run("dmsetup", "remove", "--retry", NAME)


class LogError(Exception):
    """This is no log, or a damaged one."""


@dataclasses.dataclass(frozen=True)
class Entry:
    """A log entry for `length` bytes at `offset` of the disk, whose data is at `data` in the log."""

    offset: int
    length: int
    flags: int
    text: str
    data: int


class WriteLog:
    """The entries of a log in a file. A position is an index into `entries`; `len(entries)` is the end."""

    def __init__(self, path):
        self._file = open(path, "rb", buffering=0)
        try:
            self.entries = list(self._read())
        except BaseException:
            self._file.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_exception):
        self._file.close()

    def durable_positions(self):
        """The positions just after a flush or a FUA write."""
        return [number + 1 for number, entry in enumerate(self.entries) if entry.flags & (FLUSH | FUA)]

    def position_of(self, text):
        """The position of the mark with this text."""
        return next(number for number, entry in enumerate(self.entries)
                    if entry.flags & MARK and entry.text == text)

    def apply(self, entry, disk):
        """Writes the data of an entry to a file. Discarded bytes become zeros."""
        for done in range(0, 0 if entry.flags & MARK else entry.length, CHUNK):
            size = min(CHUNK, entry.length - done)
            data = bytes(size) if entry.flags & DISCARD else self._bytes(entry.data + done, size)
            os.pwrite(disk.fileno(), data, entry.offset + done)

    def _read(self):
        magic, version, count, block = struct.unpack("<QQQI", self._bytes(0, 28))
        if (magic, version) != (MAGIC, VERSION) or block not in (512, 1024, 2048, 4096):
            raise LogError("the log does not begin as one")
        size = os.fstat(self._file.fileno()).st_size
        position = block
        for _ in range(count): # each entry takes at least a block, so this ends with the file
            entry = self._entry(position, block)
            position = entry.data + (0 if entry.flags & (DISCARD | MARK) else entry.length)
            if position > size:
                raise LogError(f"an entry reaches to {position}, behind the end of the log at {size}")
            yield entry

    def _entry(self, position, block):
        sector, sectors, flags, text_length = struct.unpack("<QQQQ", self._bytes(position, 32))
        is_mark = bool(flags & MARK)
        if is_mark and text_length > LONGEST_MARK:
            raise LogError(f"a mark of {text_length} bytes")
        text = self._bytes(position + 32, text_length).split(b"\0")[0].decode() if is_mark else ""
        return Entry(sector * block, sectors * block, flags, text, position + block)

    def _bytes(self, offset, length):
        data = os.pread(self._file.fileno(), length, offset)
        if len(data) != length:
            raise LogError(f"the log ends within the {length} bytes at {offset}")
        return data


class Replay:
    """A disk in a file, to which a log is applied step by step."""

    def __init__(self, log, path):
        self._log = log
        self.path = path
        self.position = 0

    def advance(self, position):
        """Applies all entries up to `position`. To go back, make a new Replay."""
        assert position >= self.position
        with open(self.path, "r+b", buffering=0) as disk:
            for entry in self._log.entries[self.position:position]:
                self._log.apply(entry, disk)
        self.position = position

    def copy_with_some_writes(self, path, random):
        """Makes a copy with a random part of the writes up to the next flush: what a cache may have written
        at a power cut."""
        run("cp", "--sparse=always", self.path, path)
        later = [position for position in self._log.durable_positions() if position > self.position]
        with open(path, "r+b", buffering=0) as disk:
            for entry in self._log.entries[self.position:later[0] if later else None]:
                if random.random() < 0.5:
                    self._log.apply(entry, disk)
