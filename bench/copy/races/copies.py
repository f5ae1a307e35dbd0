"""Copies against the floor under them. The images are in memory, which leaves the target's disk out."""
import dataclasses

from bench.copy import files
from bench.copy.floor import beginning_of, best_window, copied_ranges, image_alone, in_turns, source_alone
from bench.copy.races.changes import race_shares
from bench.copy.races.memory import report_peak
from bench.copy.report import GIBIBYTE, MEBIBYTE, numbers
from bench.copy.testbed import Testbed

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


def race_round(testbed, report, turns, alone, window, **options):
    """One backup, and its blocks moved by minimal code. Processor seconds don't depend on the machine's other
    work."""
    backup = testbed.backup(**options)
    with testbed.last_snapshot() as device:
        ranges = copied_ranges(device, testbed.partition.volume.file_system)
        image = image_alone(testbed, ranges, alone, window)
        source = source_alone(testbed, ranges, device)
        floor = in_turns(testbed, ranges, turns, device) # last, as it makes the image equal
    assert floor.bytes == backup.bytes, (floor, backup)
    best = Best(backup.copy, floor.seconds, source.seconds, image.seconds)
    report.line(f"{floor.bytes / MEBIBYTE:.0f} MiB",
                *numbers(best.copy, best.turns, best.source, best.image, best.to_turns, best.to_slower,
                         backup.own_cpu, floor.cpu))
    return best


def race_sides(testbed, report, turns, alone, rounds, **options):
    """Backups, and both sides of them in turns and alone. The best of each counts, as the machine's other
    work comes and goes."""
    with testbed.last_snapshot() as device:
        ranges = copied_ranges(device, testbed.partition.volume.file_system)
        window = best_window(testbed, list(beginning_of(ranges, TRIED)), alone)
    report.line(f"image alone: {window}")
    report.line("", "copy s", "in turns s", "source s", "image s", "to turns", "to slower", "copy CPU s",
                "turns CPU s")
    all_rounds = [race_round(testbed, report, turns, alone, window, **options) for _ in range(rounds)]
    return Best(*map(min, zip(*map(dataclasses.astuple, all_rounds))))


def race_full(testbed, report, rounds):
    report.title("FULL: the copy phase beside direct reads and writes of the same blocks, in turns and alone")
    best = race_sides(testbed, report, "copy", "write", rounds, full=True)
    report.line("slower side beside both in turns", *numbers(best.slower / best.turns)) # no copy does better
    report.bound("FULL beside both sides in turns", best.to_turns, TURNS_BOUND)
    report.bound("FULL beside the slower side alone", best.to_slower, SLOWER_BOUND)


def race_merge(testbed, report, rounds):
    report.title("DIFFERENTIAL_MERGE, equal image: the copy phase beside reads of both sides")
    testbed.backup(full=True) # makes the image equal, whatever was written to it
    best = race_sides(testbed, report, "compare", "read", rounds, merge=True)
    report.bound("DIFFERENTIAL_MERGE beside the slower side alone", best.to_slower, SLOWER_BOUND)


def race(arguments, report):
    """Runs those of the races `floor` and `kinds` that were requested, on the same volume."""
    with Testbed(arguments.directory, arguments.gibibytes, images="/tmp", poisoned=False) as testbed:
        used = arguments.gibibytes * GIBIBYTE // 3
        files.fill(testbed.roots[0], used)
        testbed.backup(full=True) # allocates the blocks of each file
        if "floor" in arguments.races:
            race_full(testbed, report, arguments.rounds)
        if "kinds" in arguments.races:
            race_merge(testbed, report, arguments.rounds)
            race_shares(testbed, report, used)
        report_peak(testbed, report)
