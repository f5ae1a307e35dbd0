#!/usr/bin/env python3
"""Measures how long it takes, and how much memory, to read from an era target's metadata what has been
written: by the driver, by era_invalidate, and by dd reading as many bytes.

usage: BEKD_BUILD=build/release bench/tolvubd/era.py [GIBIBYTES [ROUNDS]]

Makes metadata for a volume of this size (50 GiB) in blocks of 4096 bytes. A thousandth of them was written,
half of that in an era that hasn't been entered yet. All three read in turns, for this number of rounds
(three); the best of each is printed. The driver and era_invalidate must print the same, byte for byte.
"""
import os
import pathlib
import random
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

from lab.arguments import parser_of, positive  # noqa: E402
from lab.daemon import program  # noqa: E402

MEBIBYTE = 1 << 20
SINCE = 3


def make(image, blocks):
    """Makes the metadata of a volume with this many blocks, as era_restore lays it out."""
    numbers = random.Random(blocks)
    written = sorted(numbers.sample(range(blocks), blocks // 1000))
    with open(image.with_suffix(".xml"), "w", encoding="ascii") as xml:
        xml.write(f'<superblock uuid="" block_size="8" nr_blocks="{blocks}" current_era="6">\n')
        xml.write(f'<writeset era="5" nr_bits="{blocks}">\n')
        xml.writelines(f'<bit block="{block}" value="true"/>\n' for block in written[::2])
        xml.write("</writeset>\n<era_array>\n")
        xml.writelines(f'<era block="{block}" era="{2 + block % 3}"/>\n' for block in written[1::2])
        xml.write("</era_array>\n</superblock>\n")
    with open(image, "wb") as file:
        file.truncate(blocks * 5 + 64 * MEBIBYTE)
    subprocess.run(["era_restore", "-q", "-i", image.with_suffix(".xml"), "-o", image], check=True)
    image.with_suffix(".xml").unlink()
    os.sync()


def memory_of(process):
    """The process's peak memory so far in MiB; 0 if it has just ended."""
    text = pathlib.Path(f"/proc/{process.pid}/status").read_text(encoding="ascii")
    return next((int(line.split()[1]) / 1024 for line in text.splitlines() if line.startswith("VmHWM:")), 0)


def timed(command, output):
    """The seconds, and the highest sample of the process's peak memory in MiB. None of the measured programs
    reads through the page cache."""
    memory = 0
    with open(output, "wb") as file:
        begin = time.monotonic()
        process = subprocess.Popen(command, stdout=file, stderr=subprocess.DEVNULL)
        while process.poll() is None:
            memory = max(memory, memory_of(process))
            time.sleep(0.002)
        seconds = time.monotonic() - begin
    if process.returncode != 0:
        raise subprocess.CalledProcessError(process.returncode, command)
    return seconds, memory


def measure(image, used, rounds):
    """The best seconds and the peak memory of each."""
    commands = {
        "driver": [program("EraRead"), image, "current", str(SINCE)],
        "era_invalidate": ["era_invalidate", "--written-since", str(SINCE), image],
        "dd": ["dd", f"if={image}", "bs=1M", "iflag=direct", f"count={-(-used // MEBIBYTE)}", "of=/dev/null"],
    }
    results = {name: [] for name in commands}
    for _ in range(rounds):
        for name, command in commands.items():
            results[name].append(timed(command, image.with_name(name)))
        if image.with_name("driver").read_bytes() != image.with_name("era_invalidate").read_bytes():
            raise ValueError("era_invalidate says something else")
    return {name: (min(seconds), max(memory)) for name, (seconds, memory) in
            ((name, zip(*result)) for name, result in results.items())}


def main():
    parser = parser_of(__doc__)
    parser.add_argument("gibibytes", type=positive, nargs="?", default=50, metavar="GIBIBYTES")
    parser.add_argument("rounds", type=positive, nargs="?", default=3, metavar="ROUNDS")
    arguments = parser.parse_args()
    gibibytes, rounds = arguments.gibibytes, arguments.rounds
    if not program("EraRead").exists():
        sys.exit(f"era.py: there is no {program('EraRead')}; scripts/build release builds it")
    blocks = gibibytes << 18
    with tempfile.TemporaryDirectory(dir=ROOT / "build") as directory:
        image = pathlib.Path(directory) / "image"
        make(image, blocks)
        used = blocks * 4 + blocks // 8
        print(f"{gibibytes} GiB in {blocks} blocks, {used / MEBIBYTE:.0f} MiB of metadata to be read")
        for name, (seconds, memory) in measure(image, used, rounds).items():
            print(f"  {name:16} {seconds:7.3f} s  {memory:7.1f} MiB at most")


if __name__ == "__main__":
    main()
