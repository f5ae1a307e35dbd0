"""Whole backups over iSCSI, beside what can't be done without and what else would do; on a release
build:

    BEKD_BUILD=build/release lab/namespace /usr/bin/python3 -m bench.copy.race [--gibibytes N] [RACE...]

Races: floor, peers, kinds, memory; all if none is given. A ratio above its bound is marked, and the exit
status is 1 then. A third of the volume is used, by files of all sizes.

The floor and the tools read the bytes of the snapshot that the backup before them has copied: the driver
keeps them when the backup ends, as a sparse file, and they are shown by the same kind of loop device again.
So all sides move the same blocks from the same device to the same disk of the same target, in turns. Of
several rounds the best counts: what else the machine does comes and goes.

For floor and kinds, the target's image is in memory, which takes a third of the volume's size, and what the
driver has just read is too, if there is room: a disk would make every ratio look better. For peers the image
is on the disk below --directory, where the other big files lie as well, about 50 GiB of them for a volume of
20. The volume of the last race has 2 TiB, all hole, of which the driver reads every zero.
"""
import argparse
import pathlib
import sys

from bench.copy import files
from bench.copy.bed import Bed
from bench.copy.floor import copied_ranges, run_floor
from bench.copy.peers import require_tools, run_partclone, run_qemu
from lab.daemon import ROOT, require_private_site

MEBIBYTE = 1 << 20
GIBIBYTE = 1 << 30
COPY_BOUND = 1.10
MERGE_BOUND = 1.15
PEAK_BOUND = 120 # MiB
HUGE_GIBIBYTES = 2048
SHARES = (0, 0.01, 0.02) # of the used bytes


class Report:
    """Prints, and keeps in mind what has broken its bound."""

    def __init__(self):
        self.broken = []

    def title(self, text):
        print(f"\n{text}", flush=True)

    def line(self, name, *columns):
        print(f"  {name:34}" + "".join(f"{column:>14}" for column in columns), flush=True)

    def bound(self, name, value, bound, unit=""):
        verdict = "" if value <= bound else "  BROKEN"
        print(f"  {name}: {value:.2f}{unit}, at most {bound}{unit}{verdict}", flush=True)
        if verdict:
            self.broken.append(name)


def rate(size, seconds):
    return f"{size / MEBIBYTE / seconds:.0f} MiB/s"


def race_floor(bed, report, mode, rounds, **options):
    """The copy phase of backups, and the same blocks moved by as little as will do, in turns. Returns the
    ratio of the best. Processor seconds don't depend on what else the machine does."""
    report.line("", "MiB", "copy s", "floor s", "volume s", "image s", "ratio", "copy CPU s", "floor CPU s")
    rows = []
    for number in range(1, rounds + 1):
        backup = bed.backup(**options)
        with bed.last_snapshot() as device:
            floor = run_floor(mode, device, copied_ranges(device, bed.partition.volume.file_system), bed)
        assert floor.bytes == backup.bytes, (floor, backup)
        report.line(f"round {number}", f"{floor.bytes / MEBIBYTE:.0f}",
                    *(f"{value:.2f}" for value in (backup.copy, floor.seconds, floor.local, floor.remote,
                                                   backup.copy / floor.seconds, backup.own_cpu, floor.cpu)))
        rows.append((backup.copy, floor.seconds))
    copy, floor = map(min, zip(*rows))
    return copy / floor


def race_full(bed, report, rounds):
    report.title("FULL: the copy phase beside direct reads and synchronous writes of the same blocks")
    report.bound("FULL, best", race_floor(bed, report, "copy", rounds, full=True), COPY_BOUND)


def race_merge(bed, report, rounds):
    report.title("DIFFERENTIAL_MERGE, equal image: the copy phase beside reads of both sides")
    report.bound("DIFFERENTIAL_MERGE, best", race_floor(bed, report, "compare", rounds, merge=True),
                 MERGE_BOUND)


def race_shares(bed, report, used):
    """Incremental backups after some of the volume was changed."""
    report.title("INCREMENTAL: seconds by how much has changed")
    report.line("", "copied MiB", "copy s", "MiB/s", "snapshot s", "the rest s", "whole s")
    runs = []
    for share in SHARES:
        files.change(bed.root, share * used)
        backup = bed.backup()
        assert backup.kind == "incremental", backup
        snapshot = backup.phases["Start Snapshotting"]
        report.line(f"{share * 100:.0f} % changed", *(f"{value:.2f}" for value in (
            backup.bytes / MEBIBYTE, backup.copy, backup.bytes / MEBIBYTE / backup.copy, snapshot,
            backup.whole - backup.copy - snapshot, backup.whole)))
        runs.append(backup)
    first, *_, last = runs
    slope = (last.copy - first.copy) / (last.bytes - first.bytes) * GIBIBYTE
    report.line("copy phase", f"{first.copy:.2f} s", "+", f"{slope:.2f} s/GiB")
    for name, seconds in sorted(first.phases.items(), key=lambda item: -item[1]):
        if seconds >= 0.01:
            report.line("", f"{seconds:.2f} s", f"  {name.split(' ' + bed.partition.uuid)[0]}")


def race_peers(bed, report):
    """A full backup, and what an administrator would use instead."""
    report.title("FULL beside other tools; the target's CPU seconds aren't those of the agent or tool")
    backup = bed.backup(full=True)
    with bed.last_snapshot() as device:
        peers = [run_qemu(bed, device), run_partclone(bed, device)]
    report.line("", "s", "MiB written", "own CPU s", "target CPU s", "s, ratio", "MiB, ratio", "CPU, ratio")
    own = (backup.volume, backup.written, backup.own_cpu)
    report.line("bekd, the volume", f"{backup.volume:.2f}", f"{backup.written / MEBIBYTE:.0f}",
                f"{backup.own_cpu:.2f}", f"{backup.target_cpu:.2f}")
    report.line("  with the snapshot and the rest", f"{backup.whole:.2f}")
    for peer in peers:
        ratios = [value / other for value, other in zip(own, (peer.seconds, peer.written, peer.own_cpu))]
        report.line(peer.name, f"{peer.seconds:.2f}", f"{peer.written / MEBIBYTE:.0f}", f"{peer.own_cpu:.2f}",
                    f"{peer.target_cpu:.2f}", *(f"{ratio:.2f}" for ratio in ratios))


def race_memory(directory, report):
    """The daemon's memory for a volume of 2 TiB, next to nothing of it used. It is an XFS: an ext4 of more
    than 1.25 TiB is copied whole."""
    report.title(f"Memory for an XFS of {HUGE_GIBIBYTES} GiB, sparse")
    with Bed(directory, HUGE_GIBIBYTES, file_system="xfs", poisoned=False) as bed:
        files.fill(bed.root, 256 * MEBIBYTE)
        backup = bed.backup(full=True)
        report.line("", f"{backup.whole:.0f} s", f"{backup.bytes / MEBIBYTE:.0f} MiB",
                    f"snapshot {backup.phases['Start Snapshotting']:.0f} s", rate(backup.bytes, backup.copy))
        report.bound(f"peak RSS, {HUGE_GIBIBYTES} GiB", bed.peak_mebibytes(), PEAK_BOUND, " MiB")


def race_copies(arguments, report):
    """The races that leave the target's disk out."""
    with Bed(arguments.directory, arguments.gibibytes, images="/tmp", poisoned=False) as bed:
        used = arguments.gibibytes * GIBIBYTE // 3
        files.fill(bed.root, used)
        bed.backup(full=True) # each file gets its place
        if "floor" in arguments.races:
            race_full(bed, report, arguments.rounds)
        if "kinds" in arguments.races:
            race_merge(bed, report, arguments.rounds)
            race_shares(bed, report, used)
        report.title(f"Memory for a volume of {arguments.gibibytes} GiB")
        report.bound(f"peak RSS, {arguments.gibibytes} GiB", bed.peak_mebibytes(), PEAK_BOUND, " MiB")


def race_tools(arguments, report):
    """The races with other tools."""
    require_tools()
    with Bed(arguments.directory, arguments.gibibytes) as bed:
        files.fill(bed.root, arguments.gibibytes * GIBIBYTE // 3)
        race_peers(bed, report)


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--gibibytes", type=int, default=20, help="of the volume; default: %(default)s")
    parser.add_argument("--rounds", type=int, default=3, help="default: %(default)s")
    parser.add_argument("--directory", type=pathlib.Path, default=ROOT / "build/bench")
    names = ("floor", "peers", "kinds", "memory")
    parser.add_argument("races", nargs="*", choices=[*names, []], metavar="RACE", help=", ".join(names))
    arguments = parser.parse_args()
    arguments.races = arguments.races or names
    return arguments


def main():
    arguments = parse_arguments()
    require_private_site()
    arguments.directory.mkdir(parents=True, exist_ok=True)
    report = Report()
    if {"floor", "kinds"} & set(arguments.races):
        race_copies(arguments, report)
    if "peers" in arguments.races:
        race_tools(arguments, report)
    if "memory" in arguments.races:
        race_memory(arguments.directory, report)
    if report.broken:
        sys.exit(f"\nbroken: {', '.join(report.broken)}")


if __name__ == "__main__":
    main()
