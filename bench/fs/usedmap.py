#!/usr/bin/env python3
"""usage: lab/namespace bench/fs/usedmap.py

Measures the maps of used blocks of large volumes beside plain reads of the same bytes and the clearing of
the buffers (build/release/bench_fs): sparse ones of 1 and nearly 16 TiB, and aged ones of 20 GiB. Makes the
images below build/bench, needs about 2 GiB there, and removes them again. The last line tells if a bound is
broken: 1.25 times as long, or 80 MiB at the peak."""
import pathlib
import re
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

from lab.daemon import program  # noqa: E402
from lab.volume_images import age, make_image, mounted, riddle  # noqa: E402

BENCH = program("bench_fs")
TEBIBYTE = 1024 * 1024  # in MiB
SLOWEST = 1.25
LARGEST = 80
LAZY = ("-E", "lazy_itable_init=1,lazy_journal_init=1,nodiscard", "-b", "4096")
VOLUMES = {
    "ext4 of 1 TiB, sparse": (TEBIBYTE, False, ("ext4", *LAZY)),
    "ext4 of 20 GiB, aged": (20 * 1024, True, ("ext4", *LAZY)),
    "xfs of 1 TiB, sparse": (TEBIBYTE, False, ("xfs", "-K")),
    "xfs of 20 GiB, aged": (20 * 1024, True, ("xfs", "-K")),
    "hfsplus of 1 TiB, sparse": (TEBIBYTE, False, ("hfsplus",)),
    "hfsplus of 1 TiB, aged": (TEBIBYTE, False, ("hfsplus", "--files", "30000", "--hollow")),
    "xfs of nearly 16 TiB, sparse": (16 * TEBIBYTE - 1024, False, ("xfs", "-K")),
}


def wear(image, file_system, directory):
    with mounted(image, file_system, directory) as (_, mount_point):
        age(mount_point, 3000, largest=200_000)
        riddle(mount_point / "riddled", 4096, 30_000)


def measure(name, directory):
    mebibytes, is_aged, making = VOLUMES[name]
    image = make_image(directory / "volume", mebibytes, *making)
    if is_aged:
        wear(image, making[0], directory / "mnt")
    line = subprocess.run([BENCH, image], check=True, capture_output=True, text=True).stdout.strip()
    image.unlink()
    ratio, peak = re.search(r"ratio ([\d.]+), peak (\d+) MiB", line).groups()
    print(f"{name}: {line.split(': ', 1)[1]}", flush=True)
    return float(ratio) <= SLOWEST and int(peak) < LARGEST


def main():
    (ROOT / "build/bench").mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(dir=ROOT / "build/bench") as directory:
        results = [measure(name, pathlib.Path(directory)) for name in VOLUMES]
    if not all(results):
        sys.exit(f"a bound is broken: {SLOWEST} times the plain reads, {LARGEST} MiB")


if __name__ == "__main__":
    main()
