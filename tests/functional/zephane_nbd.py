"""Both ends of NBD, low-level enough for tests that violate the protocol. Numbers are big endian, sizes are
in bytes."""
import os
import struct

GREETING = b"NBDMAGICIHAVEOPT"
FIXED_NEWSTYLE, NO_ZEROES = 1, 2
OPTION_REPLY = 0x3E889045565A9
REQUEST, REPLY = 0x25609513, 0x67446698
EXPORT_NAME, LIST, INFO, GO = 1, 3, 6, 7
ACK, SERVER, INFORMATION, UNSUPPORTED = 1, 2, 3, 0x80000001
READ, WRITE, DISCONNECT, FLUSH, TRIM, WRITE_ZEROES = 0, 1, 2, 3, 4, 6
HAS_FLAGS, READ_ONLY, CAN_FLUSH, CAN_TRIM, CAN_WRITE_ZEROES, CAN_MULTI_CONN = 1, 2, 4, 32, 64, 256
USUAL = HAS_FLAGS | CAN_FLUSH | CAN_TRIM | CAN_WRITE_ZEROES | CAN_MULTI_CONN


class NbdRefusal(Exception):
    """The server has refused a request with this errno, or an option with this number."""

    def __init__(self, error):
        super().__init__(f"refused: {error}")
        self.error = error


class NbdClient:
    """An NBD client over any object with send(data) and receive(size)."""

    def __init__(self, stream):
        self._stream = stream
        self.size = None
        self.flags = None

    def greet(self):
        greeting = self._stream.receive(18)
        if greeting[:16] != GREETING:
            raise ValueError(f"not NBD: {greeting}")
        self._stream.send(struct.pack(">I", FIXED_NEWSTYLE | NO_ZEROES))
        return self

    def option(self, number, data=b""):
        """Sends an option; returns its replies up to the last one, as pairs of type and data."""
        self._stream.send(b"IHAVEOPT" + struct.pack(">II", number, len(data)) + data)
        replies = []
        while not replies or replies[-1][0] in (SERVER, INFORMATION):
            magic, asked, kind, length = struct.unpack(">QIII", self._stream.receive(20))
            if (magic, asked) != (OPTION_REPLY, number):
                raise ValueError(f"not the reply to option {number}: {magic:x} {asked}")
            replies.append((kind, self._stream.receive(length)))
        if replies[-1][0] != ACK:
            raise NbdRefusal(replies[-1][0])
        return replies[:-1]

    def go(self, name=b"", option=GO):
        """Opens the export of this name; with `INFO` as the option, only asks about it."""
        replies = self.option(option, struct.pack(">I", len(name)) + name + b"\0\0")
        [told] = [data for kind, data in replies if kind == INFORMATION and data[:2] == b"\0\0"]
        self.size, self.flags = struct.unpack(">QH", told[2:])
        return self

    def go_old(self, name=b""):
        """The same by the old option, which the server can't refuse with a reply."""
        self._stream.send(b"IHAVEOPT" + struct.pack(">II", EXPORT_NAME, len(name)) + name)
        self.size, self.flags = struct.unpack(">QH", self._stream.receive(10))
        return self

    def request(self, kind, offset, length, data=b"", flags=0):
        """Sends a request, without waiting for the reply; returns its cookie."""
        cookie = os.urandom(8)
        self._stream.send(struct.pack(">IHH", REQUEST, flags, kind) + cookie +
                          struct.pack(">QI", offset, length) + data)
        return cookie

    def reply(self, cookie):
        magic, error, answered = struct.unpack(">II8s", self._stream.receive(16))
        if (magic, answered) != (REPLY, cookie):
            raise ValueError(f"not the reply: {magic:x}")
        if error:
            raise NbdRefusal(error)

    def call(self, kind, offset=0, length=0, data=b"", flags=0):
        self.reply(self.request(kind, offset, length, data, flags))

    def write(self, offset, data):
        self.call(WRITE, offset, len(data), data)

    def read(self, offset, length):
        self.call(READ, offset, length)
        return self._stream.receive(length)

    def flush(self):
        self.call(FLUSH)

    def end(self):
        self.request(DISCONNECT, 0, 0)


class NbdServer:
    """An NBD server with an image in memory. Subclasses replace its steps to make it misbehave."""

    def __init__(self, stream, size, flags=USUAL):
        self.stream = stream
        self.size = size
        self.flags = flags
        self.content = bytearray(min(size, 1 << 24))

    def run(self):
        self.greet()
        self.negotiate_options()
        while self.serve(*self.receive_request()):
            pass

    def greet(self):
        self.stream.send(GREETING + struct.pack(">H", FIXED_NEWSTYLE | NO_ZEROES))
        self.stream.receive(4)

    def negotiate_options(self):
        """Answers options until one opens the image."""
        while True:
            _, option, length = struct.unpack(">8sII", self.stream.receive(16))
            self.stream.receive(length)
            if option == GO:
                self.send_option_reply(option, INFORMATION, struct.pack(">HQH", 0, self.size, self.flags))
                self.send_option_reply(option, ACK)
                return
            self.send_option_reply(option, UNSUPPORTED)

    def send_option_reply(self, option, kind, data=b""):
        self.stream.send(struct.pack(">QIII", OPTION_REPLY, option, kind, len(data)) + data)

    def receive_request(self):
        """The next request: (kind, cookie, offset, length, data)."""
        _, _, kind, cookie, offset, length = struct.unpack(">IHH8sQI", self.stream.receive(28))
        return kind, cookie, offset, length, self.stream.receive(length) if kind == WRITE else b""

    def serve(self, kind, cookie, offset, length, data):
        """Executes one request; returns False for the last one."""
        if kind == DISCONNECT:
            return False
        if kind in (WRITE, WRITE_ZEROES, TRIM):
            self.content[offset:offset + length] = data or bytes(length)
        self.answer(cookie, bytes(self.content[offset:offset + length]) if kind == READ else b"")
        return True

    def answer(self, cookie, data=b""):
        self.stream.send(struct.pack(">II", REPLY, 0) + cookie + data)
