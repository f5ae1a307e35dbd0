"""Incremental backups after a part of the volume has changed."""
from bench.copy import files
from bench.copy.report import GIBIBYTE, MEBIBYTE, numbers

SHARES = (0, 0.01, 0.02) # of the used bytes


def race_shares(testbed, report, used):
    report.title("INCREMENTAL: seconds by how much has changed")
    report.line("", "copied MiB", "copy s", "MiB/s", "snapshot s", "the rest s", "whole s")
    runs = [one_run(testbed, report, share, used) for share in SHARES]
    first, *_, last = runs
    slope = (last.copy - first.copy) / (last.bytes - first.bytes) * GIBIBYTE
    report.line("copy phase", f"{first.copy:.2f} s", "+", f"{slope:.2f} s/GiB")
    for name, seconds in sorted(first.phases.items(), key=lambda item: -item[1]):
        if seconds >= 0.01:
            report.line("", f"{seconds:.2f} s", f"  {name.split(' ' + testbed.partition.uuid)[0]}")


def one_run(testbed, report, share, used):
    files.change(testbed.roots[0], share * used)
    backup = testbed.backup()
    assert backup.kind == "incremental", backup
    snapshot = backup.phases["Start Snapshotting"]
    size = backup.bytes / MEBIBYTE
    report.line(f"{share * 100:.0f} % changed",
                *numbers(size, backup.copy, size / backup.copy, snapshot,
                         backup.whole - backup.copy - snapshot, backup.whole))
    return backup
