#!/usr/bin/env python3
"""Measures what tracking by device-mapper costs the programs that write to a volume, and how long they stall
while a snapshot is taken, against the untracked volume and against a capture.

usage: bench/tolvubd/tracking.py DISK [GIBIBYTES...]

All data on DISK is lost. It must have room for the largest volume (1, 50 and 500 GiB unless others are
named), and may be sparse. In a machine of its own:

    scripts/build release
    lab/machine up --disk 520G
    lab/machine sh $PWD/bench/tolvubd/tracking.py /dev/ubdb
    lab/machine down

The first tables count the disk's requests for each write of a program, so they don't depend on the machine's
speed. The ratio compares the bytes written with those of the untracked volume. "Fresh" writes are the first
ones to their blocks since the last snapshot. The last table shows the longest time that a program waited for
4 KiB to be on the disk, while others write at random places.
"""
import contextlib
import json
import os
import pathlib
import subprocess
import sys
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

from lab.arguments import block_device, parser_of, positive  # noqa: E402

PROGRAM = pathlib.Path(os.environ.get("BEKD_BUILD", ROOT / "build/release")).resolve() / "TolvubdCall"
MOUNT_POINT = pathlib.Path("/mnt/tracking")
GROUP = "tracking"
SIZES = [1, 50, 500]
GIBIBYTE = 1 << 30
MEBIBYTE = 1 << 20
MINOR = 77
ROUNDS = 3
QUIET_SECONDS = 5
SETTLE_SECONDS = 0.2 # enough for the longest waiting write to end

# For each job: fio's options, and the bytes of one write.
JOBS = {
    "4 KiB at random, 16 at a time":
        ("--bs=4k --rw=randwrite --iodepth=16 --ioengine=libaio --direct=1 --size=48M", 4096),
    "4 KiB at random, each with fdatasync":
        ("--bs=4k --rw=randwrite --ioengine=psync --fdatasync=1 --size=4M", 4096),
    "1 MiB in order, 4 at a time":
        ("--bs=1M --rw=write --iodepth=4 --ioengine=libaio --direct=1 --size=192M", MEBIBYTE),
}
LOAD = ("--bs=4k --rw=randwrite --iodepth=8 --ioengine=libaio --direct=1 --size=256M "
        "--time_based --runtime=3600")


def run(*command, **options):
    return subprocess.run([str(word) for word in command], check=True, stdout=subprocess.PIPE, text=True,
                          timeout=1800, **options).stdout


def call(function, *arguments):
    run(PROGRAM, function, *arguments)


class Disk:
    """A disk with a small partition and a volume group on the rest of it."""

    PLAIN_SECTORS = GIBIBYTE // 512

    def __init__(self, path):
        self.path = path
        self._statistics = pathlib.Path("/sys/block", pathlib.Path(path).name, "stat")
        run("sfdisk", "--quiet", "--wipe-partitions", "always", "--label", "gpt", path,
            input=f"size={self.PLAIN_SECTORS}\nsize=+\n")
        run("udevadm", "settle")
        self.plain, self._rest = (f"{path}{number}" for number in (1, 2))
        run("vgcreate", "--quiet", "--yes", GROUP, self._rest)

    def remove(self):
        run("vgremove", "--quiet", "--force", GROUP)
        run("wipefs", "--quiet", "--all", self.plain, self._rest, self.path)

    def counts(self):
        """Reads, writes, KiB written and flushes since the machine was started."""
        words = [int(word) for word in self._statistics.read_text(encoding="ascii").split()]
        return words[0], words[4], words[6] / 2, words[15]

    @contextlib.contextmanager
    def volume(self, gibibytes):
        """A mounted logical volume."""
        run("lvcreate", "--quiet", "--yes", "--wipesignatures", "n", "--size", f"{gibibytes}G",
            "--name", "volume", GROUP)
        try:
            with mounted(f"/dev/{GROUP}/volume", gibibytes * GIBIBYTE) as volume:
                yield volume
        finally:
            run("lvremove", "--quiet", "--yes", f"{GROUP}/volume")

    @contextlib.contextmanager
    def partition(self):
        """The mounted small partition."""
        with mounted(self.plain, self.PLAIN_SECTORS * 512) as volume:
            yield volume


@contextlib.contextmanager
def mounted(device, size):
    # Few inodes, and none initialised later: those writes of the kernel would be counted, too.
    run("mkfs.ext4", "-q", "-F", "-N", "8192", "-E", "nodiscard", device)
    MOUNT_POINT.mkdir(exist_ok=True)
    run("mount", "-o", "noinit_itable", device, MOUNT_POINT)
    try:
        yield Tracked(device, size)
    finally:
        run("umount", MOUNT_POINT)


class Tracked:
    """A mounted volume, and the snapshot driver's calls for it."""

    def __init__(self, device, size):
        self.device = device
        self._cow_mebibytes = size // 4096 * 8 // MEBIBYTE + min(512, size // MEBIBYTE // 4)
        self._names = [".tolvu", ".tolvu1"]

    def first_snapshot(self):
        call("setup_snapshot", MINOR, self.device, MOUNT_POINT / self._names[0], self._cow_mebibytes)

    def next_snapshot(self):
        self._names.reverse()
        call("transition_snapshot", MINOR, MOUNT_POINT / self._names[0], self._cow_mebibytes)
        (MOUNT_POINT / self._names[1]).unlink()

    @staticmethod
    def track():
        call("transition_incremental", MINOR)

    @staticmethod
    def destroy():
        call("destroy", MINOR)


def fio(name, words):
    return ["fio", f"--name={name}", f"--filename={MOUNT_POINT}/fio", "--output-format=json",
            "--randrepeat=0", "--fallocate=none", *words.split()]


def fill(mebibytes):
    """Makes the file that fio writes to, so that none of its writes has to allocate a block."""
    run("dd", "if=/dev/zero", f"of={MOUNT_POINT}/fio", "bs=1M", f"count={mebibytes}", "conv=fsync",
        stderr=subprocess.DEVNULL)


def count(disk, words, length):
    """The disk's requests for each write of a job: reads, writes, KiB, flushes."""
    os.sync()
    before = disk.counts()
    done = json.loads(run(*fio("job", words)))["jobs"][0]["write"]
    os.sync()
    writes = done["io_bytes"] / length
    return [(after - earlier) / writes for earlier, after in zip(before, disk.counts())]


def costs(disk, volume, words, length):
    """The results of count(), by the state of the volume."""
    size = int(words.split("--size=")[1].split("M")[0])
    fill(size)
    found = {"not tracked": count(disk, words, length)}
    volume.first_snapshot()
    volume.track()
    found["tracked, fresh"] = count(disk, words, length)
    found["tracked, again"] = count(disk, words, length)
    volume.next_snapshot()
    found["snapshot, fresh"] = count(disk, words, length)
    found["snapshot, again"] = count(disk, words, length)
    volume.track()
    volume.destroy()
    return found


def show_costs(disk):
    with disk.volume(4) as volume:
        for job, (words, length) in JOBS.items():
            found = costs(disk, volume, words, length)
            plain = found["not tracked"]
            print(f"\n{job}")
            print(f"{'by each write':18}{'reads':>8}{'writes':>8}{'KiB':>9}{'flushes':>9}{'ratio':>8}")
            for state, (reads, writes, kibibytes, flushes) in found.items():
                print(f"{state:18}{reads:8.2f}{writes:8.2f}{kibibytes:9.1f}{flushes:9.2f}"
                      f"{kibibytes / plain[2]:8.2f}")


class Writer(threading.Thread):
    """A program that writes 4 KiB again and again, and waits each time until they are on the disk."""

    def __init__(self):
        super().__init__()
        self._longest = 0
        self._is_stopping = False

    def run(self):
        with open(MOUNT_POINT / "writer", "wb", buffering=0) as file:
            while not self._is_stopping:
                begin = time.monotonic()
                os.pwrite(file.fileno(), os.urandom(4096), 0)
                os.fdatasync(file.fileno())
                self._longest = max(self._longest, time.monotonic() - begin)

    def take_longest(self):
        """The longest wait in seconds since the last call."""
        longest, self._longest = self._longest, 0
        return longest

    def stop(self):
        self._is_stopping = True
        self.join()


@contextlib.contextmanager
def load():
    """Many writes at random places, and the one program that is measured."""
    fill(256)
    writer = Writer()
    with subprocess.Popen(fio("load", LOAD), stdout=subprocess.DEVNULL) as others:
        try:
            writer.start()
            yield writer
        finally:
            writer.stop()
            others.terminate()


def waits(volume):
    """The program's longest wait in each step; the worst of the rounds."""
    steps = {"quiet": lambda: time.sleep(QUIET_SECONDS), "first": volume.first_snapshot,
             "end": volume.track, "next": volume.next_snapshot, "end of that": volume.track,
             "destroy": volume.destroy}
    worst = dict.fromkeys(steps, 0)
    with load() as writer:
        for _ in range(ROUNDS):
            for name, step in steps.items():
                writer.take_longest()
                step()
                time.sleep(SETTLE_SECONDS)
                worst[name] = max(worst[name], writer.take_longest())
    return worst


def show_waits(disk, sizes):
    print(f"\n{'longest wait in ms':24}{'quiet':>8}{'first':>8}{'end':>8}{'next':>8}{'end':>8}{'destroy':>8}")
    rows = {}
    for gibibytes in sizes:
        with disk.volume(gibibytes) as volume:
            rows[f"device-mapper, {gibibytes} GiB"] = waits(volume)
    with disk.partition() as volume:
        rows["capture, 1 GiB"] = waits(volume)
    for name, row in rows.items():
        print(f"{name:24}" + "".join(f"{1000 * seconds:8.0f}" for seconds in row.values()))
    capture = rows.pop("capture, 1 GiB")
    for name, row in rows.items():
        print(f"{name}: {row['first'] / capture['first']:.3f} of the capture's first wait, "
              f"{row['next'] / capture['next']:.3f} of its next")


def main():
    parser = parser_of(__doc__)
    parser.add_argument("disk", type=block_device, metavar="DISK")
    parser.add_argument("sizes", type=positive, nargs="*", default=SIZES, metavar="GIBIBYTES")
    arguments = parser.parse_args()
    disk = Disk(arguments.disk)
    try:
        show_costs(disk)
        show_waits(disk, arguments.sizes)
    finally:
        disk.remove()


if __name__ == "__main__":
    main()
