"""A delaying proxy in front of a server on this machine: adds half a round trip in each direction.

    with DelayProxy(3260, round_trip=0.005) as proxy:
        proxy.portal

It is a process of its own, with two threads for each direction of a connection. It carries more than 1 GB/s,
and its threads add up to 0.3 ms to a round trip. Data in transit is limited to 16 MiB in each direction. The
TCP windows are those of two short connections, not of one long connection.

    /usr/bin/python3 -m lab.delay LISTEN PORT MILLISECONDS
"""
import contextlib
import queue
import socket
import sys
import threading
import time

from lab.services import ROOT, Service

ADDRESS = "127.0.0.1"
PIECE = 1 << 18
PIECES = 64
READY = "listening"


class DelayProxy(Service):
    """Listens on one port, and forwards to another. `round_trip` is in seconds."""

    def __init__(self, port, round_trip, listen=None):
        super().__init__()
        self.listen = listen or port + 1
        self.command = ("env", f"PYTHONPATH={ROOT}", sys.executable, "-m", "lab.delay", str(self.listen),
                        str(port), str(round_trip * 1000))

    @property
    def portal(self):
        return f"{ADDRESS}:{self.listen}"

    def is_ready(self):
        return READY in self.output


class DelayLine:
    """One direction of a connection. Its buffers are reused: a buffer is free again only when its data has
    been sent, so reading stops when all of them are full."""

    def __init__(self, source, sink, delay):
        self._source, self._sink, self._delay = source, sink, delay
        self._free, self._filled = queue.SimpleQueue(), queue.SimpleQueue()
        for _ in range(PIECES):
            self._free.put(memoryview(bytearray(PIECE)))

    def start(self):
        threads = [threading.Thread(target=part, daemon=True) for part in (self._receive, self._send)]
        for thread in threads:
            thread.start()
        return threads

    def _receive(self):
        size = PIECE
        while size:
            buffer = self._free.get()
            try:
                size = self._source.recv_into(buffer)
            except OSError:
                size = 0
            self._filled.put((time.monotonic() + self._delay, buffer[:size], buffer))

    def _send(self):
        """Sends until the source ends. If the sink is gone, shuts the source down."""
        data = True
        while data:
            due, data, buffer = self._filled.get()
            time.sleep(max(0, due - time.monotonic()))
            try:
                self._pass_on(data)
            except OSError:
                with contextlib.suppress(OSError):
                    self._source.shutdown(socket.SHUT_RDWR)
            self._free.put(buffer)

    def _pass_on(self, data):
        if data:
            self._sink.sendall(data)
        else:
            self._sink.shutdown(socket.SHUT_WR)


def carry(near, port, delay):
    """Forwards one connection until both directions have ended."""
    with contextlib.suppress(OSError), near, socket.create_connection((ADDRESS, port)) as far:
        for end in (near, far):
            end.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for thread in DelayLine(near, far, delay).start() + DelayLine(far, near, delay).start():
            thread.join()


def main():
    listen, port, milliseconds = int(sys.argv[1]), int(sys.argv[2]), float(sys.argv[3])
    with socket.create_server((ADDRESS, listen)) as listener:
        print(READY, flush=True)
        while True:
            near, _ = listener.accept()
            threading.Thread(target=carry, args=(near, port, milliseconds / 2000), daemon=True).start()


if __name__ == "__main__":
    main()
