"""The structures of an NTFS volume in an image, for what the file system's tools neither show nor make.

    with open(image, "r+b") as file:
        volume = NtfsVolume(file)
        record = volume.record(BITMAP)
        attribute = record.attribute(DATA)
        attribute.runs                         # [(first cluster, clusters), ...]
        volume.write_record(BITMAP, record)
"""
import struct

SECTOR = 512 # the unit that update sequence numbers protect, whatever the volume's sector size
MFT, MFT_MIRROR, BITMAP, CAPITALS = 0, 1, 6, 10 # record numbers
MIRRORED = 4 # number of records in the mirror
ATTRIBUTE_LIST, DATA, END = 0x20, 0x80, 0xFFFFFFFF
NUMBER = (1 << 48) - 1 # the part of a reference that is the record number
RUNS_AT = 32


class NtfsVolume:
    """The fields of the boot sector, and the file records. The caller keeps owning `file`."""

    def __init__(self, file):
        self._file = file
        boot = self.read(0, SECTOR)
        sector, sectors = struct.unpack_from("<HB", boot, 11)
        self.cluster_size = sector * (sectors if sectors <= 0x80 else 1 << 0x100 - sectors)
        self.clusters = struct.unpack_from("<Q", boot, 40)[0] * sector // self.cluster_size
        self._mft, = struct.unpack_from("<Q", boot, 48)
        size, = struct.unpack_from("<b", boot, 64)
        self.record_size = size * self.cluster_size if size > 0 else 1 << -size

    def read(self, offset, length):
        self._file.seek(offset)
        return self._file.read(length)

    def write(self, offset, content):
        self._file.seek(offset)
        self._file.write(content)

    def places_of(self, number):
        """Where a record is: (offset, length); there are several if the record continues in another run."""
        if number == MFT:
            return [(self._mft * self.cluster_size, self.record_size)]
        return self._places_of(self.record(MFT), number)

    def _places_of(self, table, number):
        """Where a record of the table, or of its mirror, is."""
        position, left = number * self.record_size, self.record_size
        places = []
        for first, count in table.attribute(DATA).runs:
            length = min(max(count * self.cluster_size - position, 0), left)
            if length:
                places.append((first * self.cluster_size + position, length))
            position = max(position - count * self.cluster_size, 0)
            left -= length
        return places

    def record(self, number):
        return Record(bytearray(b"".join(self.read(*place) for place in self.places_of(number))))

    def write_record(self, number, record):
        """Writes a record, and its copy in the mirror if it has one."""
        places = self.places_of(number)
        if number < MIRRORED:
            places += self._places_of(self.record(MFT_MIRROR), number)
        content = record.protected() * 2
        for offset, length in places:
            self.write(offset, content[:length])
            content = content[length:]

    def read_runs(self, runs):
        return b"".join(self.read(first * self.cluster_size, count * self.cluster_size)
                        for first, count in runs)

    def write_runs(self, runs, content):
        for first, count in runs:
            self.write(first * self.cluster_size, content[:count * self.cluster_size])
            content = content[count * self.cluster_size:]


class Record:
    """A record of the master file table, without the update sequence numbers that protect its sectors on the
    disk."""

    def __init__(self, protected):
        self.content = protected
        self._array, count = struct.unpack_from("<HH", protected, 4)
        self._ends = [SECTOR * number - 2 for number in range(1, count)]
        for entry, end in enumerate(self._ends, 1):
            at = self._array + 2 * entry
            protected[end:end + 2] = protected[at:at + 2]

    def protected(self):
        """The record as it is on the disk."""
        found = bytearray(self.content)
        for entry, end in enumerate(self._ends, 1):
            at = self._array + 2 * entry
            found[at:at + 2] = found[end:end + 2]
            found[end:end + 2] = found[self._array:self._array + 2]
        return bytes(found)

    def attributes(self):
        """The offsets and types of the attributes."""
        at, = struct.unpack_from("<H", self.content, 20)
        kind, = struct.unpack_from("<I", self.content, at)
        while kind != END:
            yield at, kind
            at += struct.unpack_from("<I", self.content, at + 4)[0]
            kind, = struct.unpack_from("<I", self.content, at)

    def attribute(self, wanted):
        """The first attribute of a type, or None."""
        return next((Attribute(self, at) for at, kind in self.attributes() if kind == wanted), None)

    def replace(self, at, length, body):
        """Replaces the bytes of an attribute."""
        used, = struct.unpack_from("<I", self.content, 24)
        grown = used - length + len(body)
        if grown > len(self.content):
            raise ValueError(f"a record of {len(self.content)} bytes has no room for {grown}")
        tail = self.content[at + length:used]
        self.content[at:] = (bytes(body) + tail).ljust(len(self.content) - at, b"\0")
        struct.pack_into("<I", self.content, 24, grown)


class Attribute:
    """An attribute in a record."""

    def __init__(self, record, at):
        self._record = record
        self._at = at

    def field(self, layout, offset):
        return struct.unpack_from(layout, self._record.content, self._at + offset)[0]

    def set_field(self, layout, offset, value):
        struct.pack_into(layout, self._record.content, self._at + offset, value)

    @property
    def length(self):
        return self.field("<I", 4)

    @property
    def value(self):
        """The value of a resident attribute."""
        begin = self._at + self.field("<H", 20)
        return bytes(self._record.content[begin:begin + self.field("<I", 16)])

    @property
    def runs(self):
        """The runs of a non-resident attribute, in order: (first cluster, clusters)."""
        begin = self._at + self.field("<H", RUNS_AT)
        return list(decoded(self._record.content[begin:self._at + self.length]))

    @runs.setter
    def runs(self, runs):
        begin = self.field("<H", RUNS_AT)
        head = self._record.content[self._at:self._at + begin]
        body = head + encoded(runs)
        body += bytes(-len(body) % 8)
        struct.pack_into("<I", body, 4, len(body))
        self._record.replace(self._at, self.length, body)


def decoded(text):
    at = first = 0
    while text[at]:
        length_bytes, offset_bytes = text[at] & 15, text[at] >> 4
        middle = at + 1 + length_bytes
        first += int.from_bytes(text[middle:middle + offset_bytes], "little", signed=True)
        yield first, int.from_bytes(text[at + 1:middle], "little", signed=True)
        at = middle + offset_bytes


def encoded(runs):
    text = b""
    before = 0
    for first, count in runs:
        length, offset = shortest(count), shortest(first - before)
        text += bytes([len(length) | len(offset) << 4]) + length + offset
        before = first
    return text + b"\0"


def shortest(number):
    """A signed number in as few bytes as possible."""
    return number.to_bytes((number if number >= 0 else ~number).bit_length() // 8 + 1, "little", signed=True)


def records_of_list(entries):
    """The numbers of the records that an attribute list names for the unnamed data attribute, in order."""
    at = 0
    while at < len(entries):
        kind, length, = struct.unpack_from("<IH", entries, at)
        if kind == DATA:
            yield struct.unpack_from("<Q", entries, at + 16)[0] & NUMBER
        at += length
