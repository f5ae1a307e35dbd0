"""The floor under a copy: the same blocks moved, or read from both sides, by as little as will do."""
import dataclasses
import json

from bench.copy.process import timed
from lab.commands import run
from lab.daemon import program
from lab.driver import OWN_FILES
from lab.images import extents_of_files, without


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


def copied_ranges(device, file_system):
    """(offset, length) in bytes of what a full backup copies of the snapshot on `device`: every used block,
    but for those of the driver's and the agent's own files."""
    found = json.loads(run(program("bek-usedmap"), "--json", device))
    size = found["blockSize"]
    used = [(first * size, count * size) for first, count in found["ranges"]]
    return list(without(used, extents_of_files(device, file_system, OWN_FILES)))


def run_floor(mode, device, ranges, bed):
    """Moves the ranges; `mode` is "copy" or "compare"."""
    bed.settle()
    command = [program("bench_copy_floor"), mode, device, bed.target.portal, bed.target.name,
               str(bed.image.lun)]
    printed, _, cpu = timed(command, "".join(f"{offset} {length}\n" for offset, length in ranges))
    return Floor(**json.loads(printed), cpu=cpu)
