"""The floor under a copy: the same blocks moved by minimal code, both sides in turns or one alone."""
import dataclasses
import itertools
import json

from bench.copy.process import timed
from lab.commands import run
from lab.daemon import program
from lab.driver import OWN_FILES
from lab.images import extents_of_files, without

THREADS = (1, 2)
COMMAND_BYTES = (1 << 16, 1 << 17, 1 << 18)
DEPTHS = (16, 32, 64)


@dataclasses.dataclass(frozen=True)
class Floor:
    chunks: int
    bytes: int
    local: float
    remote: float
    cpu: float

    @property
    def seconds(self):
        return self.local + self.remote


@dataclasses.dataclass(frozen=True)
class Window:
    """A number of commands in flight, and their size."""

    depth: int
    bytes: int

    def __str__(self):
        return f"{self.depth} x {self.bytes >> 10} KiB"


def copied_ranges(device, file_system):
    """The ranges that a full backup copies of the snapshot on `device`, as (offset, length) in bytes: all
    used blocks except those of the driver's and the agent's own files."""
    found = json.loads(run(program("bek-usedmap"), "--json", device))
    size = found["blockSize"]
    used = [(first * size, count * size) for first, count in found["ranges"]]
    return list(without(used, extents_of_files(device, file_system, OWN_FILES)))


def beginning_of(ranges, size):
    """The first `size` bytes of the ranges."""
    for offset, length in ranges:
        if size <= 0:
            return
        yield offset, min(length, size)
        size -= length


def run_floor(testbed, ranges, mode, *arguments):
    testbed.settle()
    printed, _, cpu = timed([program("bench_copy_floor"), mode, *map(str, arguments)],
                            "".join(f"{offset} {length}\n" for offset, length in ranges))
    return Floor(**json.loads(printed), cpu=cpu)


def in_turns(testbed, ranges, mode, device):
    """Copies or compares the ranges; `mode` is "copy" or "compare"."""
    return run_floor(testbed, ranges, mode, device, testbed.target.portal, testbed.target.name,
                     testbed.image.lun)


def source_alone(testbed, ranges, device):
    """Reads the volume, by the number of threads that is fastest."""
    return min((run_floor(testbed, ranges, "source", device, threads) for threads in THREADS),
               key=lambda floor: floor.seconds)


def image_alone(testbed, ranges, mode, window, portal=None):
    """Reads the image or writes noise to it; `mode` is "read" or "write"."""
    return run_floor(testbed, ranges, mode, portal or testbed.target.portal, testbed.target.name,
                     testbed.image.lun, window.bytes, window.depth)


def best_window(testbed, ranges, mode):
    """The window that is fastest with the target."""
    windows = itertools.starmap(Window, itertools.product(DEPTHS, COMMAND_BYTES))
    return min(windows, key=lambda window: image_alone(testbed, ranges, mode, window).seconds)
