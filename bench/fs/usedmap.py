#!/usr/bin/env python3
"""usage: lab/namespace bench/fs/usedmap.py [WORD...]

Measures reading the maps of used blocks of large volumes, against plain reads of the same bytes and the
clearing of the buffers (build/release/bench_fs): sparse volumes of 1 and nearly 16 TiB, and aged ones of 20
GiB; if there are WORDs, only the volumes that have all of them in their names. Also prints how long other
programs take to find the used blocks of the same volume, and what part of that the map takes. No volume is in
the page cache.

The images are made below build/bench, which takes about 2 GiB, and removed again. The last line says if any
bound is broken: 1.25 times as long as the reads, or 80 MiB at the peak."""
import dataclasses
import os
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

from lab.daemon import program  # noqa: E402
from lab.volume_images import age, fragment_free_space, fragment_with_files, make_image, mounted  # noqa: E402

BENCH = program("bench_fs")
TEBIBYTE = 1024 * 1024  # in MiB
AGED = 20 * 1024
SLOWEST = 1.25
LARGEST = 80
ROUNDS = 5
LONG = 10 # seconds
HOLES = 30_000
LAZY = ("-E", "lazy_itable_init=1,lazy_journal_init=1,nodiscard", "-b", "4096")
PARTCLONE = ("--domain", "--offset_domain=0", "--force", "--logfile", "/dev/null", "--overwrite", "/dev/null",
             "--source")
# For each file system: programs that find its used blocks; the image becomes their last argument.
PEERS = {
    "ntfs": (("ntfsresize", "--info", "--force", "--no-progress-bar"), ("partclone.ntfs", *PARTCLONE),
             ("ntfscluster", "--quiet", "--force", "--cluster", f"0-{(1 << 32) - 1}")),
    "vfat": (("partclone.vfat", *PARTCLONE),),
    "hfsplus": (("blkls", "-l", "-f", "hfs"),),
}


def wear(directory):
    age(directory, 3000, largest=200_000)
    fragment_free_space(directory / "riddled", 4096, HOLES)


def wear_with_files(directory):
    age(directory, 3000, largest=200_000)
    fragment_with_files(directory / "riddled", 4096, HOLES)


@dataclasses.dataclass
class Volume:
    """A volume to be made, with options for its tool; `use` is called for it when it is mounted."""

    mebibytes: int
    file_system: str
    options: tuple = ()
    use: Callable | None = None


VOLUMES = {
    "ext4 of 1 TiB, sparse": Volume(TEBIBYTE, "ext4", LAZY),
    "ext4 of 20 GiB, aged": Volume(AGED, "ext4", LAZY, wear),
    "xfs of 1 TiB, sparse": Volume(TEBIBYTE, "xfs", ("-K",)),
    "xfs of 20 GiB, aged": Volume(AGED, "xfs", ("-K",), wear),
    "xfs of nearly 16 TiB, sparse": Volume(16 * TEBIBYTE - 1024, "xfs", ("-K",)),
    "fat of 1 TiB, sparse": Volume(TEBIBYTE, "vfat", ("-s", "64")),
    "fat of 1 TiB, sparse, straddling": Volume(TEBIBYTE, "vfat", ("-s", "64", "-a", "-R", "33")),
    "ntfs of 1 TiB, sparse": Volume(TEBIBYTE, "ntfs"),
    "ntfs of nearly 16 TiB, sparse": Volume(16 * TEBIBYTE - 1024, "ntfs"),
    "ntfs of 20 GiB, aged": Volume(AGED, "ntfs", use=wear_with_files),
    "hfsplus of 1 TiB, sparse": Volume(TEBIBYTE, "hfsplus"),
    "hfsplus of 20 GiB, with files": Volume(AGED, "hfsplus", ("--files", "30000", "--hollow")),
}


def forget(image):
    """Drops the image from the page cache."""
    with open(image, "rb") as file:
        os.fsync(file.fileno())
        os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)


def seconds_of(command):
    """The median seconds of some runs, or of fewer if they take long. The output, which for some programs has
    a line for each block, is discarded."""
    found = []
    while len(found) < ROUNDS and sum(found) < LONG:
        forget(command[-1])
        begin = time.monotonic()
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        found.append(time.monotonic() - begin)
    return statistics.median(found)


def measure(name, directory):
    volume = VOLUMES[name]
    image = make_image(directory / "volume", volume.mebibytes, volume.file_system, *volume.options)
    if volume.use:
        with mounted(image, volume.file_system, directory / "mnt") as (_, mount_point):
            volume.use(mount_point)
    line = subprocess.run([BENCH, image], check=True, capture_output=True, text=True).stdout.strip()
    found = re.search(r"map ([\d.]+) s.* ratio ([\d.]+), peak (\d+) MiB", line)
    own, ratio, peak = map(float, found.groups())
    print(f"{name}: {line.split(': ', 1)[1]}", flush=True)
    for peer in PEERS.get(volume.file_system, ()):
        seconds = seconds_of((*peer, image))
        print(f"    {peer[0]} {seconds:.4f} s, the map takes {own / seconds:.3f} of that", flush=True)
    image.unlink()
    return ratio <= SLOWEST and peak < LARGEST


def main(words):
    chosen = [name for name in VOLUMES if all(word in name for word in words)]
    if not chosen:
        sys.exit(f"no volume has all of these words: {' '.join(words)}")
    (ROOT / "build/bench").mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(dir=ROOT / "build/bench") as directory:
        results = [measure(name, pathlib.Path(directory)) for name in chosen]
    if not all(results):
        sys.exit(f"a bound is broken: {SLOWEST} times the plain reads, {LARGEST} MiB")


if __name__ == "__main__":
    main(sys.argv[1:])
