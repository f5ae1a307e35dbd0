"""Races bek-restore write against the fastest possible restore, and against similar tools.

usage: /usr/bin/python3 -m bench.restore.write [--images DIR] [--directory DIR] [--gibibytes N] [--rounds N]

as root, in lab/namespace, with BEKD_BUILD naming a build folder. An ext4 volume is aged. Its image is a file
below --images, in memory by default, as source and target of a restore don't share a disk. It is restored to
a block device on a file below --directory, by turns:
    read       the used bytes are only read
    write      as many bytes are only written, by direct I/O
    copy       bek-restore write --no-compare, which does both at once; see the slower one of these two
    whole      bek-restore write, which reads back what it has written; see copy and another read
    qemu-img   qemu-img convert, of all bytes of the image
    partclone  partclone.restore, of the used blocks, from an image of its own
Prints the fewest seconds of each, and compares them with the slower one of read and write.
"""
import argparse
import mmap
import os
import pathlib
import subprocess
import tempfile
import time

from lab.arguments import existing_directory, positive
from lab.daemon import program
from lab.images import truth_of
from lab.loops import attached
from lab.volume_images import age, make_image, mounted

PIECE = 4 << 20
QEMU = ("qemu-img", "convert", "-n", "-t", "none", "-f", "raw", "-O", "raw")


def pieces(image):
    """(offset, length) of the used bytes, in pieces that a program reads at once."""
    for at, length in truth_of(image, "ext4").used_extents():
        for begin in range(at, at + length, PIECE):
            yield begin, min(PIECE, at + length - begin)


def each(path, flags, places, work):
    """Calls work(descriptor, [piece], offset) for each place, and syncs the file at the end."""
    descriptor = os.open(path, flags)
    with mmap.mmap(-1, PIECE) as memory:
        memory.write(os.urandom(PIECE)) # some disks are quick with zeros
        for offset, length in places:
            with memoryview(memory)[:length] as piece:
                work(descriptor, [piece], offset)
    os.fsync(descriptor)
    os.close(descriptor)


def racers(image, clone, device):
    """The actions to be timed, by name."""
    places = list(pieces(image))

    def run(*command):
        subprocess.run(list(map(str, command)), check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)

    restore = (program("bek-restore"), "write", "--overwrite", image, device)
    return {
        "read": lambda: each(image, os.O_RDONLY, places, os.preadv),
        "write": lambda: each(device, os.O_RDWR | os.O_DIRECT, places, os.pwritev),
        "copy": lambda: run(*restore, "--no-compare"),
        "whole": lambda: run(*restore),
        "qemu-img": lambda: run(*QEMU, image, device),
        "partclone": lambda: run("partclone.restore", "-s", clone, "-o", device, "-L", "/dev/null"),
    }


def seconds(work):
    subprocess.run(["sync"], check=True)
    begin = time.monotonic()
    work()
    return time.monotonic() - begin


def race(images, directory, gibibytes, rounds):
    image = make_image(images / "image", gibibytes << 10, "ext4")
    with mounted(image, "ext4", images / "tree") as (_, tree):
        age(tree, 1500 * gibibytes, largest=1_000_000)
    with open(directory / "target", "wb") as file:
        os.posix_fallocate(file.fileno(), 0, gibibytes << 30)
    clone = images / "clone"
    with attached(directory / "target", "--direct-io=on") as device, attached(image, "--read-only") as source:
        subprocess.run(["partclone.ext4", "-c", "-F", "-s", source, "-o", clone, "-L", "/dev/null"],
                       check=True, stderr=subprocess.DEVNULL)
        times = {name: [] for name in racers(image, clone, device)}
        for _ in range(rounds):
            for name, work in racers(image, clone, device).items():
                times[name].append(seconds(work))
    used = sum(length for _, length in pieces(image))
    return used, {name: min(taken) for name, taken in times.items()}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--images", type=existing_directory, default="/dev/shm")
    parser.add_argument("--directory", type=existing_directory, default="/var/tmp")
    parser.add_argument("--gibibytes", type=positive, default=2)
    parser.add_argument("--rounds", type=positive, default=3)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(dir=options.images) as images, \
            tempfile.TemporaryDirectory(dir=options.directory) as directory:
        used, least = race(pathlib.Path(images), pathlib.Path(directory), options.gibibytes,
                           options.rounds)
    floor = max(least["read"], least["write"])
    print(f"{used / 1e6:,.0f} MB of {options.gibibytes} GiB are used")
    for name, taken in least.items():
        rate = used / taken / 1e6
        print(f"{name:10} {taken:7.2f} s {rate:9,.0f} MB/s {taken / floor:6.2f} x the slower side")


if __name__ == "__main__":
    main()
