"""Several volumes in one backup, against as many backups of one volume each."""
from bench.copy import files
from bench.copy.report import GIBIBYTE, numbers
from bench.copy.testbed import Testbed

VOLUMES = 5
BOUND = 1.0


def race_round(testbed, report):
    """The seconds of both, from the beginning of a run to its end."""
    together = testbed.backup(full=True)
    apart = [testbed.backup(chosen=slice(number, number + 1), full=True) for number in range(VOLUMES)]
    assert together.bytes == sum(run.bytes for run in apart), (together, apart)
    seconds = together.whole, sum(run.whole for run in apart)
    report.line("", *numbers(*seconds, seconds[0] / seconds[1]))
    return seconds


def race(arguments, report):
    report.title(f"{VOLUMES} volumes of 1 GiB, FULL, whole backups")
    report.line("", "together s", "one by one s", "ratio")
    with Testbed(arguments.directory, 1, images="/tmp", poisoned=False, volumes=VOLUMES) as testbed:
        for root in testbed.roots:
            files.fill(root, GIBIBYTE // 3)
        testbed.backup(full=True) # allocates the blocks of each file
        together, apart = map(min, zip(*(race_round(testbed, report) for _ in range(arguments.rounds))))
        report.bound(f"{VOLUMES} volumes in one backup beside {VOLUMES} backups", together / apart, BOUND)
