"""Who mustn't get in the appliance's way: crowds of idle connections, requests that never end, bodies that
are too long; and what the agent spends on them.

    with crowd(("127.0.0.1", 25567), 4000):
        appliance.backups()
"""
import contextlib
import pathlib
import resource
import socket

from lab.https_client import SECONDS
from lab.usage import status_number

MIB = 1 << 20


def descriptor_limits(pid):
    """The soft and the hard limit."""
    limits = pathlib.Path(f"/proc/{pid}/limits").read_text(encoding="ascii")
    [line] = [line for line in limits.splitlines() if line.startswith("Max open files")]
    return tuple(int(number) for number in line.split()[3:5])


class PeakMemory:
    """By how much the memory of a process has grown at most since this was made, in KiB."""

    def __init__(self, pid):
        self._pid = pid
        pathlib.Path(f"/proc/{pid}/clear_refs").write_text("5", encoding="ascii") # the peak begins anew
        self._before = status_number(pid, "VmRSS")

    @property
    def kib(self):
        return status_number(self._pid, "VmHWM") - self._before


@contextlib.contextmanager
def crowd(address, count):
    """That many connections on which nothing is ever said."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    with contextlib.ExitStack() as stack:
        stack.callback(resource.setrlimit, resource.RLIMIT_NOFILE, (soft, hard))
        yield [stack.enter_context(socket.create_connection(address, SECONDS)) for _ in range(count)]


def send_head(connection, url, count):
    connection.send(f"POST {url} HTTP/1.1\r\nHost: agent\r\nContent-Length: {count}\r\n\r\n".encode())


@contextlib.contextmanager
def held_head(client, url="/pair", body_bytes=100, body=b""):
    """A request of which the head has come, and of the body no more than this."""
    with client.connect() as connection:
        send_head(connection, url, body_bytes)
        connection.send(body)
        yield connection


def send_body(client, url, count):
    """POSTs this many bytes, as fast as they are taken. Returns the answer."""
    piece = b"x" * MIB
    with client.connect() as connection:
        connection.socket.settimeout(10 * SECONDS)
        send_head(connection, url, count)
        for start in range(0, count, len(piece)):
            connection.send(piece[:count - start])
        return connection.read_answer()
