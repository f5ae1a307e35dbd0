"""The common part of the tests of backups over the second transport: bytes on the wire, free space, and
engines that can be made to fail."""
import contextlib
import json
import os
import pathlib
import signal

from backup_site import fill, root_of
from lab.backups import capture_of
from lab.commands import run
from lab.filesystems import truth_of
from lab.zephane import PORT, ZephaneServer

FAILING_CALLS = ("pread", "pwrite", "zero")
KINDS = ({"full": True}, {}, {"merge": True})


class Wire:
    """Counts the bytes sent to a port and received from it, including packet headers."""

    def sent(self):
        return self._count("sent")

    def answered(self):
        return self._count("answered")

    @staticmethod
    def _count(name):
        listed = json.loads(run("nft", "--json", "list", "counter", "inet", "wire", name))
        return next(entry["counter"]["bytes"] for entry in listed["nftables"] if "counter" in entry)


@contextlib.contextmanager
def watched_wire(port=PORT):
    run("nft", f"""add table inet wire
        add counter inet wire sent
        add counter inet wire answered
        add chain inet wire in {{ type filter hook input priority 0; }}
        add rule inet wire in tcp dport {port} counter name sent
        add rule inet wire in tcp sport {port} counter name answered""")
    try:
        yield Wire()
    finally:
        run("nft", "delete table inet wire")


def fragment(partition):
    """Fills a volume so that its free space is fragmented."""
    name = partition.name
    fill(root_of(partition), name, files=120)
    for number in range(0, 120, 3):
        (root_of(partition) / f"{name}-{number % 7}" / f"file {number}").unlink()


def free_extents(partition):
    """(offset, length) of the free space at the last snapshot, by the file system's own tool."""
    truth = truth_of(capture_of(partition), partition.volume.file_system)
    return [(first * truth.block_size, count * truth.block_size) for first, count in truth.free_ranges]


class FailingServer(ZephaneServer):
    """A server whose engines fail chosen calls with a storage error, at this rate."""

    def __init__(self, rate="100%", **options):
        super().__init__(**options)
        self._rate = rate

    def open(self, stack):
        self._switches = self.make_directory(stack, "switches-", "/run")
        self.options = ["--filter=error", "error=EIO",
                        *(word for call in FAILING_CALLS
                          for word in (f"error-{call}-rate={self._rate}",
                                       f"error-{call}-file={self._switch(call)}"))]
        super().open(stack)

    def _switch(self, call):
        return pathlib.Path(self._switches, call)

    def fail(self, *calls):
        """Makes these calls fail from now on."""
        for call in calls:
            self._switch(call).touch()

    def stop_failing(self):
        for call in FAILING_CALLS:
            self._switch(call).unlink(missing_ok=True)


def kill_server(site):
    site.target.restart()


def kill_engine(site):
    engine = site.protection.images["data"].engine()
    if engine is not None: # there is none while no client is connected
        os.kill(engine, signal.SIGKILL)
