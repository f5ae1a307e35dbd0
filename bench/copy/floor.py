"""The floor under a copy: the same blocks moved, or read from both sides, by as little as will do."""
import dataclasses
import json
import re
import subprocess

from bench.copy.process import timed
from lab.daemon import program
from lab.images import mounted

EXTENT = re.compile(r"^\s*\d+:\s+\d+\.\.\s*\d+:\s+(\d+)\.\.\s*(\d+):", re.MULTILINE)
OWN_FILES = (".tolvu", ".tolvu1", ".tolvu.inc")


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


def own_extents(root, block_size):
    """(first, behind) of the agent's own files, in blocks."""
    for name in OWN_FILES:
        if (root / name).exists():
            text = subprocess.run(["filefrag", "-e", f"-b{block_size}", root / name], check=True,
                                  capture_output=True, text=True).stdout
            for first, last in EXTENT.findall(text):
                yield int(first), int(last) + 1


def without(ranges, holes):
    """Both in order, as (first, behind)."""
    for first, behind in ranges:
        for begin, end in holes:
            if first < begin < behind:
                yield first, begin
            if begin < behind and first < end:
                first = min(end, behind)
        if first < behind:
            yield first, behind


def copied_ranges(device):
    """(offset, length) in bytes of what a full backup copies of the snapshot on `device`: every used block,
    but for those of the agent's own files."""
    found = json.loads(subprocess.run([program("bek-usedmap"), "--json", device], check=True,
                                      capture_output=True, text=True).stdout)
    size = found["blockSize"]
    used = [(first, first + count) for first, count in found["ranges"]]
    with mounted(device, "ext4") as root:
        own = sorted(own_extents(root, size))
    return [(first * size, (behind - first) * size) for first, behind in without(used, own)]


def run_floor(mode, device, ranges, bed):
    """Moves the ranges; `mode` is "copy" or "compare"."""
    bed.settle()
    command = [program("bench_copy_floor"), mode, device, bed.target.portal, bed.target.name,
               str(bed.image.lun)]
    printed, _, cpu = timed(command, "".join(f"{offset} {length}\n" for offset, length in ranges))
    return Floor(**json.loads(printed), cpu=cpu)
