"""The receiving end of /dev/log, for inside lab/namespace, where /dev is private."""
import pathlib
import re
import socket

from lab.services import wait_until

DEVICE = pathlib.Path("/dev/log")
MESSAGE = re.compile(r"<(?P<priority>\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d (?P<ident>[^\[]+)\[(?P<pid>\d+)\]: "
                     r"(?P<text>.*)", re.DOTALL)


class SystemLog:
    """Collects, as matches of MESSAGE, what programs send to the system log during the context."""

    def __enter__(self):
        self._received = []
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.setblocking(False)
        self._socket.bind(str(DEVICE))
        return self

    @property
    def messages(self):
        while True:
            try:
                datagram = self._socket.recv(65536).decode()
            except BlockingIOError:
                return list(self._received)
            message = MESSAGE.fullmatch(datagram)
            if message is None:
                raise ValueError(f"not a message of the system log: {datagram!r}")
            self._received.append(message)

    def wait_for(self, text, seconds=20):
        """The first message that contains the text."""
        def first():
            return next((message for message in self.messages if text in message["text"]), None)
        return wait_until(first, seconds, f"{text!r} in the system log")

    def __exit__(self, *_exception):
        self._socket.close()
        DEVICE.unlink()
