#!/usr/bin/env python3
"""Measures how long the stand-in snapshot driver freezes a volume, against dd reading the same device.

usage: BEKD_BUILD=build/release lab/namespace bench/tolvubd/freeze.py [MEBIBYTES [ROUNDS]]

Prints the best time of each, over rounds in which both take turns, and the driver's peak memory.
"""
import os
import pathlib
import re
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT), str(ROOT / "tests/functional")]

from lab.arguments import parser_of, positive  # noqa: E402
from lab.daemon import program, require_private_site  # noqa: E402
from lab.driver import STORE  # noqa: E402
from lab.system_log import SystemLog  # noqa: E402
from tolvubd_site import Volume, must  # noqa: E402

GIBIBYTE = 1 << 30


def drop_caches():
    pathlib.Path("/proc/sys/vm/drop_caches").write_text("1", encoding="ascii")


def read_with_dd(volume):
    drop_caches()
    begin = time.monotonic()
    subprocess.run(["dd", f"if={volume.device}", f"of={STORE}/dd", "bs=8M", "iflag=direct",
                    "conv=sparse"], check=True, stderr=subprocess.DEVNULL)
    seconds = time.monotonic() - begin
    (STORE / "dd").unlink()
    return seconds


def freeze(volume):
    """The seconds of the freeze, and the process's peak memory in KiB."""
    drop_caches()
    with SystemLog() as log:
        command = [program("TolvubdCall"), "setup_snapshot", "0", volume.device, volume.cow, "100"]
        caller = subprocess.Popen(command, stdout=subprocess.DEVNULL)
        _, caller.returncode, usage = os.wait4(caller.pid, 0)
        text = log.wait_for("was frozen for")["text"]
    must("destroy", 0)
    return int(re.search(r"frozen for (\d+) ms", text)[1]) / 1000, usage.ru_maxrss


def fill(volume, mebibytes):
    subprocess.run(["dd", "if=/dev/urandom", f"of={volume.mount_point}/data", "bs=1M", f"count={mebibytes}",
                    "conv=fsync"], check=True, stderr=subprocess.DEVNULL)


def report(name, seconds, size):
    print(f"{name:24} {seconds:7.3f} s  {seconds * GIBIBYTE / size:7.3f} s/GiB")


def main():
    parser = parser_of(__doc__)
    parser.add_argument("mebibytes", type=positive, nargs="?", default=1024, metavar="MEBIBYTES")
    parser.add_argument("rounds", type=positive, nargs="?", default=3, metavar="ROUNDS")
    arguments = parser.parse_args()
    require_private_site()
    mebibytes, rounds = arguments.mebibytes, arguments.rounds
    with Volume("bench", "ext4", mebibytes * 2048) as volume:
        fill(volume, mebibytes // 2)
        results = [(*freeze(volume), read_with_dd(volume)) for _ in range(rounds)]
        frozen, memory, dd = zip(*results)
        report("frozen", min(frozen), volume.size)
        report("dd of the same device", min(dd), volume.size)
        print(f"ratio {min(frozen) / min(dd):.2f}, peak RSS {max(memory) / 1024:.1f} MiB")


if __name__ == "__main__":
    main()
