"""Several volumes in one backup, against as many backups of one volume each."""
from bench.copy import files
from bench.copy.bed import Bed
from bench.copy.report import GIBIBYTE, numbers

VOLUMES = 5
BOUND = 1.0


def race_round(bed, report):
    """The seconds of both, from the beginning of a run to its end."""
    together = bed.backup(full=True)
    apart = [bed.backup(chosen=slice(number, number + 1), full=True) for number in range(VOLUMES)]
    assert together.bytes == sum(run.bytes for run in apart), (together, apart)
    seconds = together.whole, sum(run.whole for run in apart)
    report.line("", *numbers(*seconds, seconds[0] / seconds[1]))
    return seconds


def race(arguments, report):
    report.title(f"{VOLUMES} volumes of 1 GiB, FULL, whole backups")
    report.line("", "together s", "one by one s", "ratio")
    with Bed(arguments.directory, 1, images="/tmp", poisoned=False, volumes=VOLUMES) as bed:
        for root in bed.roots:
            files.fill(root, GIBIBYTE // 3)
        bed.backup(full=True) # each file gets its place
        together, apart = map(min, zip(*(race_round(bed, report) for _ in range(arguments.rounds))))
        report.bound(f"{VOLUMES} volumes in one backup beside {VOLUMES} backups", together / apart, BOUND)
