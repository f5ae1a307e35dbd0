"""Copies against the floor under them. The images are in memory, which leaves the target's disk out."""
import dataclasses

from bench.copy import files
from bench.copy.bed import Bed
from bench.copy.floor import beginning_of, best_window, copied_ranges, image_alone, in_turns, source_alone
from bench.copy.races.changes import race_shares
from bench.copy.races.memory import report_peak
from bench.copy.report import GIBIBYTE, MEBIBYTE, numbers

TURNS_BOUND = 0.50
SLOWER_BOUND = 1.10
TRIED = GIBIBYTE # bytes that the windows are tried with


@dataclasses.dataclass(frozen=True)
class Best:
    """The best seconds of all rounds."""

    copy: float
    turns: float
    source: float
    image: float

    @property
    def to_turns(self):
        return self.copy / self.turns

    @property
    def slower(self):
        return max(self.source, self.image)

    @property
    def to_slower(self):
        return self.copy / self.slower


def race_round(bed, report, turns, alone, window, **options):
    """One backup, and its blocks moved by minimal code. Processor seconds don't depend on the machine's other
    work."""
    backup = bed.backup(**options)
    with bed.last_snapshot() as device:
        ranges = copied_ranges(device, bed.partition.volume.file_system)
        image = image_alone(bed, ranges, alone, window)
        source = source_alone(bed, ranges, device)
        floor = in_turns(bed, ranges, turns, device) # last, as it makes the image equal
    assert floor.bytes == backup.bytes, (floor, backup)
    best = Best(backup.copy, floor.seconds, source.seconds, image.seconds)
    report.line(f"{floor.bytes / MEBIBYTE:.0f} MiB",
                *numbers(best.copy, best.turns, best.source, best.image, best.to_turns, best.to_slower,
                         backup.own_cpu, floor.cpu))
    return best


def race_sides(bed, report, turns, alone, rounds, **options):
    """Backups, and both sides of them in turns and alone. The best of each counts, as the machine's other
    work comes and goes."""
    with bed.last_snapshot() as device:
        ranges = copied_ranges(device, bed.partition.volume.file_system)
        window = best_window(bed, list(beginning_of(ranges, TRIED)), alone)
    report.line(f"image alone: {window}")
    report.line("", "copy s", "in turns s", "source s", "image s", "to turns", "to slower", "copy CPU s",
                "turns CPU s")
    all_rounds = [race_round(bed, report, turns, alone, window, **options) for _ in range(rounds)]
    return Best(*map(min, zip(*map(dataclasses.astuple, all_rounds))))


def race_full(bed, report, rounds):
    report.title("FULL: the copy phase beside direct reads and writes of the same blocks, in turns and alone")
    best = race_sides(bed, report, "copy", "write", rounds, full=True)
    report.line("slower side beside both in turns", *numbers(best.slower / best.turns)) # no copy does better
    report.bound("FULL beside both sides in turns", best.to_turns, TURNS_BOUND)
    report.bound("FULL beside the slower side alone", best.to_slower, SLOWER_BOUND)


def race_merge(bed, report, rounds):
    report.title("DIFFERENTIAL_MERGE, equal image: the copy phase beside reads of both sides")
    bed.backup(full=True) # makes the image equal, whatever was written to it
    best = race_sides(bed, report, "compare", "read", rounds, merge=True)
    report.bound("DIFFERENTIAL_MERGE beside the slower side alone", best.to_slower, SLOWER_BOUND)


def race(arguments, report):
    """The races `floor` and `kinds`, as far as they are wanted, on the same volume."""
    with Bed(arguments.directory, arguments.gibibytes, images="/tmp", poisoned=False) as bed:
        used = arguments.gibibytes * GIBIBYTE // 3
        files.fill(bed.roots[0], used)
        bed.backup(full=True) # each file gets its place
        if "floor" in arguments.races:
            race_full(bed, report, arguments.rounds)
        if "kinds" in arguments.races:
            race_merge(bed, report, arguments.rounds)
            race_shares(bed, report, used)
        report_peak(bed, report)
