"""The daemon's memory for a volume of 2 TiB, of which almost nothing is used. It is an XFS, as an ext4 of
more than 1.25 TiB is copied whole."""
from bench.copy import files
from bench.copy.report import GIBIBYTE, MEBIBYTE
from bench.copy.testbed import Testbed

PEAK_BOUND = 120 # MiB
HUGE_GIBIBYTES = 2048


def report_peak(testbed, report):
    report.title("Memory")
    report.bound(f"peak RSS, {testbed.size // GIBIBYTE} GiB", testbed.peak_mebibytes(), PEAK_BOUND, " MiB")


def race(arguments, report):
    report.title(f"An XFS of {HUGE_GIBIBYTES} GiB, sparse")
    with Testbed(arguments.directory, HUGE_GIBIBYTES, file_system="xfs", poisoned=False) as testbed:
        files.fill(testbed.roots[0], 256 * MEBIBYTE)
        backup = testbed.backup(full=True)
        report.line("", f"{backup.whole:.0f} s", f"{backup.bytes / MEBIBYTE:.0f} MiB",
                    f"snapshot {backup.phases['Start Snapshotting']:.0f} s",
                    f"{backup.bytes / MEBIBYTE / backup.copy:.0f} MiB/s")
        report_peak(testbed, report)
