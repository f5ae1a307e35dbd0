"""Races whole backups over both transports against a plain copy of the same data. Run it on a release build:

    BEKD_BUILD=build/release lab/namespace /usr/bin/python3 -m bench.transport.zephane [MILLISECONDS...]

An ext4 of 2 GiB, a quarter of it used by files, is backed up FULL and then by DIFFERENTIAL_MERGE, for which
the image is equal. Half of the files look like logs, and half can't be compressed. The backups go:

- over zephaneftp, compressed and not, each to an nbdkit on a file;
- over iSCSI, to tgtd on a file.

nbdcopy moves the blocks of such a backup to the same kind of nbdkit, over TCP without TLS: in its default
mode, and with one request at a time, like a backup.

All images are in memory, so no disk is in the way, and all ends share this machine's processors. Seconds are
those of the copy phase, the best of some rounds. "Sent" is what has passed the loopback interface, with
packet headers. Processor seconds are those of the agent or nbdcopy, and of the server with its nbdkit.

All of it runs with each of the round trips, in milliseconds; 0, 0.5 and 5 if none is given. lab/delay.py
makes those above 0; its threads add some tenths of a millisecond and take their share of the processors.
"""
import argparse
import contextlib
import dataclasses
import functools
import pathlib
import subprocess
import tempfile

from bench.copy import files
from bench.copy.distance import ROUND_TRIPS, portal_of
from bench.copy.floor import copied_ranges
from bench.copy.process import processor_seconds, timed
from bench.copy.testbed import Testbed
from lab.daemon import ROOT, require_private_site
from lab.services import Service
from lab.zephane import ZephaneServer

MEBIBYTE = 1 << 20
GIBIBYTES = 2
USED = GIBIBYTES << 28
NBD_PORT = 10809
COLUMNS = ("s", "MiB/s", "sent MiB", "agent CPU s", "server CPU s")


@dataclasses.dataclass(frozen=True)
class Copy:
    """One copy of the data, by any program."""

    bytes: int
    seconds: float
    sent: int
    own_cpu: float
    server_cpu: float

    def columns(self):
        return (f"{self.seconds:.2f}", f"{self.bytes / MEBIBYTE / self.seconds:.0f}",
                f"{self.sent / MEBIBYTE:.1f}", f"{self.own_cpu:.2f}", f"{self.server_cpu:.2f}")


def line(name, *columns):
    print(f"  {name:44}" + "".join(f"{column:>14}" for column in columns), flush=True)


def passes_of(milliseconds):
    """How often sent data passes the interface."""
    return 2 if milliseconds else 1


def sent_so_far():
    """The bytes sent so far through the loopback interface of this namespace."""
    lines = pathlib.Path("/proc/net/dev").read_text(encoding="ascii").splitlines()
    [counters] = [line.partition(":")[2].split() for line in lines if line.strip().startswith("lo:")]
    return int(counters[8])


def measured(passes, run):
    """The result of `run`, and the bytes sent meanwhile."""
    before = sent_so_far()
    value = run()
    return value, (sent_so_far() - before) // passes


def back_up(testbed, milliseconds, **kind):
    with portal_of(testbed.target.port, milliseconds) as way:
        run, sent = measured(passes_of(milliseconds), lambda: testbed.backup(way, **kind))
    return Copy(run.bytes, run.copy, sent, run.own_cpu, run.target_cpu)


class NbdServer(Service):
    """An nbdkit on a file of its own, as zephaned starts one."""

    def __init__(self, path):
        super().__init__()
        self.command = ("nbdkit", "--foreground", "--port", str(NBD_PORT), "--ipaddr", "127.0.0.1", "file",
                        path)

    def is_ready(self):
        return subprocess.run(["nbdinfo", "--size", f"nbd://127.0.0.1:{NBD_PORT}"], capture_output=True,
                              check=False).returncode == 0


@contextlib.contextmanager
def used_blocks(testbed):
    """A sparse file with what a full backup copies, and the size of that."""
    with (testbed.last_snapshot() as device, tempfile.NamedTemporaryFile() as file,
          open(device, "rb") as source):
        ranges = copied_ranges(device, testbed.partition.volume.file_system)
        file.truncate(testbed.size)
        for offset, length in ranges:
            source.seek(offset)
            file.seek(offset)
            file.write(source.read(length))
        file.flush()
        yield file.name, sum(length for _, length in ranges)


def nbdcopy(path, size, milliseconds, *options):
    with tempfile.NamedTemporaryFile() as image:
        image.truncate(pathlib.Path(path).stat().st_size)
        with NbdServer(image.name) as server, portal_of(NBD_PORT, milliseconds) as way:
            before = processor_seconds(server.pid)
            (_, seconds, cpu), sent = measured(passes_of(milliseconds), lambda: timed(
                ["nbdcopy", "--destination-is-zero", *options, path, f"nbd://{way}"]))
            return Copy(size, seconds, sent, cpu, processor_seconds(server.pid) - before)


def best(rounds, run):
    """The fastest of some runs, as the machine's other work comes and goes."""
    return min((run() for _ in range(rounds)), key=lambda copy: copy.seconds)


def race(testbed, servers, rounds, milliseconds):
    print(f"\nround trip {milliseconds} ms", flush=True)
    line("", *COLUMNS)
    for name, server in servers.items():
        testbed.use(server, server.images[0])
        for kind, options in (("FULL", {"full": True}), ("DIFFERENTIAL_MERGE", {"merge": True})):
            copy = best(rounds, functools.partial(back_up, testbed, milliseconds, **options))
            line(f"{name}, {kind}", *copy.columns())
    with used_blocks(testbed) as (path, size):
        for name, options in (("nbdcopy", ()), ("nbdcopy, one request at a time", ("--synchronous",))):
            line(name, *best(rounds, lambda: nbdcopy(path, size, milliseconds, *options)).columns())


def zephaned(testbed, stack, port, compression):
    """A server with an image of the testbed's size."""
    server = stack.enter_context(ZephaneServer(port, compression=compression))
    server.add_image("image", testbed.size, poisoned=False, backend=str(server.directory / "image"))
    return server


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rounds", type=int, default=3, help="default: %(default)s")
    parser.add_argument("--directory", type=pathlib.Path, default=ROOT / "build/bench")
    parser.add_argument("round_trips", type=float, nargs="*", metavar="MILLISECONDS")
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    require_private_site()
    arguments.directory.mkdir(parents=True, exist_ok=True)
    with contextlib.ExitStack() as stack:
        testbed = stack.enter_context(Testbed(arguments.directory, GIBIBYTES, images="/tmp",
                                                poisoned=False))
        files.fill(testbed.roots[0], USED, (files.NOISE, files.text()))
        servers = {"zephaneftp, compressed": zephaned(testbed, stack, 25568, True),
                   "zephaneftp": zephaned(testbed, stack, 25569, False), "iSCSI": testbed.target}
        testbed.backup(full=True) # allocates the blocks of each file
        for milliseconds in arguments.round_trips or ROUND_TRIPS:
            race(testbed, servers, arguments.rounds, milliseconds)


if __name__ == "__main__":
    main()
