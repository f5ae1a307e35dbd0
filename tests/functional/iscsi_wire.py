"""The PDUs of iSCSI (RFC 7143), here called units, for tests that change them; neither end uses digests."""
import socket

HEADER = 48
NOP_OUT, COMMAND, DATA_OUT = 0x00, 0x01, 0x05 # from an initiator
NOP_IN, RESPONSE, DATA_IN, READY = 0x20, 0x21, 0x25, 0x31 # from a target
FINAL, UNDERFLOW, WITH_STATUS = 0x80, 0x02, 0x01
# The offsets of numbers. An initiator numbers commands and reports the status number that it expects. A
# target numbers statuses and reports the command numbers that it accepts.
TAG, RESIDUAL = 16, 44
COMMAND_NUMBER, EXPECTED_STATUS = 24, 28
STATUS_NUMBER, EXPECTED_COMMAND, LAST_COMMAND = 24, 28, 32
NO_TAG = 0xFFFFFFFF
CDB = slice(32, 48)
READ16, WRITE16 = 0x88, 0x8A
GOOD, CHECK_CONDITION, BUSY, TASK_SET_FULL = 0x00, 0x02, 0x08, 0x28
MEDIUM_ERROR = bytes([0x70, 0, 3, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x03, 0, 0, 0, 0, 0])


class Unit:
    """A basic header, additional headers, and data."""

    def __init__(self, header, more=b"", data=b""):
        self.header = bytearray(header)
        self._more = more
        self.data = data

    @property
    def kind(self):
        return self.header[0] & 0x3F

    @property
    def tag(self):
        return self.number(TAG)

    @property
    def is_final(self):
        return bool(self.header[1] & FINAL)

    @property
    def has_status(self):
        """Whether the unit takes a status number of the target."""
        if self.kind == DATA_IN:
            return bool(self.header[1] & WITH_STATUS)
        return self.kind != READY and (self.kind, self.tag) != (NOP_IN, NO_TAG)

    def number(self, at):
        return int.from_bytes(self.header[at:at + 4], "big")

    def set_number(self, at, value):
        self.header[at:at + 4] = (value & 0xFFFFFFFF).to_bytes(4, "big")

    def encode(self):
        self.header[5:8] = len(self.data).to_bytes(3, "big")
        return b"".join((self.header, self._more, self.data, bytes(-len(self.data) % 4)))


def receive(connection):
    """The next unit; raises EOFError at the end of the connection. A unit is never larger than 16 MiB."""
    header = receive_exactly(connection, HEADER)
    more = receive_exactly(connection, 4 * header[4])
    length = int.from_bytes(header[5:8], "big")
    return Unit(header, more, receive_exactly(connection, length + -length % 4)[:length])


def receive_exactly(connection, length):
    data = connection.recv(length, socket.MSG_WAITALL) if length else b""
    if len(data) < length:
        raise EOFError
    return data


def response(tag, status):
    """A target's response to a command that it doesn't execute."""
    unit = Unit(bytes([RESPONSE, FINAL, 0, status]).ljust(HEADER, b"\0"))
    unit.set_number(TAG, tag)
    if status == CHECK_CONDITION:
        unit.data = len(MEDIUM_ERROR).to_bytes(2, "big") + MEDIUM_ERROR
    return unit
