"""A pipe that takes a limited number of bytes, to block a program at a chosen line of its output."""
import array
import fcntl
import os
import select
import termios

SIZE = os.sysconf("SC_PAGE_SIZE")
SECONDS = 20


class NarrowPipe:
    """Takes writes of `room` bytes in all; the next write blocks until the pipe is drained.

    A write that doesn't fit blocks as a whole, so a program that writes line by line is blocked at a line.
    """

    def __init__(self, room):
        self.reader, self.writer = os.pipe()
        if fcntl.fcntl(self.writer, fcntl.F_SETPIPE_SZ, SIZE) != SIZE:
            raise OSError("the pipe can't be made narrow")
        self._filler = SIZE - room
        os.write(self.writer, b" " * self._filler)

    @property
    def is_full(self):
        waiting = array.array("i", [0])
        fcntl.ioctl(self.reader, termios.FIONREAD, waiting)
        return waiting[0] == SIZE

    def close_writer(self):
        if self.writer is not None:
            os.close(self.writer)
            self.writer = None

    def drain(self):
        """Lets the writers continue until the last one has gone; returns what they wrote."""
        self.close_writer()
        parts = iter(self._read, b"")
        return b"".join(parts)[self._filler:].decode()

    def _read(self):
        if not select.select([self.reader], [], [], SECONDS)[0]:
            raise TimeoutError(f"the pipe has writers that have written nothing for {SECONDS} s")
        return os.read(self.reader, SIZE)

    def __enter__(self):
        return self

    def __exit__(self, *_exception):
        self.close_writer()
        os.close(self.reader)


def fill(pipe):
    """Fills a pipe, given by either end. O_NONBLOCK is set on a new descriptor, not on those that others
    share."""
    own = os.open(f"/proc/self/fd/{pipe}", os.O_WRONLY | os.O_NONBLOCK)
    try:
        while True:
            os.write(own, b" ")
    except BlockingIOError:
        os.close(own)


def is_asleep(pid):
    """Whether a process is in an interruptible sleep."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        return stat.read().rpartition(")")[2].split()[0] == "S"


def hold_at(pipe, daemon):
    """Waits until a daemon that writes to the pipe is blocked at the line that doesn't fit."""
    pipe.close_writer()
    daemon.wait_for(lambda: pipe.is_full and is_asleep(daemon.pid), "stop at a line of output")
