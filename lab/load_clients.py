"""Clients that mustn't block the appliance: crowds of idle connections, requests that never end, bodies that
are too long; and the resources that the agent uses for them.

    with idle_connections(("127.0.0.1", 25567), 4000):
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
    """The soft and the hard limit of open files."""
    limits = pathlib.Path(f"/proc/{pid}/limits").read_text(encoding="ascii")
    [line] = [line for line in limits.splitlines() if line.startswith("Max open files")]
    return tuple(int(number) for number in line.split()[3:5])


class PeakMemory:
    """The maximum growth of a process's memory since this object was made, in KiB."""

    def __init__(self, pid):
        self._pid = pid
        pathlib.Path(f"/proc/{pid}/clear_refs").write_text("5", encoding="ascii") # resets the peak
        self._before = status_number(pid, "VmRSS")

    @property
    def kib(self):
        return status_number(self._pid, "VmHWM") - self._before


@contextlib.contextmanager
def idle_connections(address, count):
    """Opens this many connections, and sends nothing on them."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    with contextlib.ExitStack() as stack:
        stack.callback(resource.setrlimit, resource.RLIMIT_NOFILE, (soft, hard))
        yield [stack.enter_context(socket.create_connection(address, SECONDS)) for _ in range(count)]


def send_head(connection, url, count):
    connection.send(f"POST {url} HTTP/1.1\r\nHost: agent\r\nContent-Length: {count}\r\n\r\n".encode())


@contextlib.contextmanager
def stalled_request(client, url="/pair", body_bytes=100, body=b""):
    """A request whose head has been sent, and only this much of its body."""
    with client.connect() as connection:
        send_head(connection, url, body_bytes)
        connection.send(body)
        yield connection


def send_body(client, url, count):
    """POSTs this many bytes, as fast as the agent reads them. Returns the answer."""
    piece = b"x" * MIB
    with client.connect() as connection:
        connection.socket.settimeout(10 * SECONDS)
        send_head(connection, url, count)
        for start in range(0, count, len(piece)):
            connection.send(piece[:count - start])
        return connection.read_answer()
