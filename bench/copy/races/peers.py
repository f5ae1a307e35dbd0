"""A full backup, against what an administrator would use instead."""
from bench.copy import files
from bench.copy.report import GIBIBYTE, MEBIBYTE, numbers
from bench.copy.testbed import Testbed
from bench.copy.tools import require_tools, run_partclone, run_qemu


def race(arguments, report):
    require_tools()
    with Testbed(arguments.directory, arguments.gibibytes) as testbed:
        files.fill(testbed.roots[0], arguments.gibibytes * GIBIBYTE // 3)
        race_peers(testbed, report)


def race_peers(testbed, report):
    report.title("FULL beside other tools; the target's CPU seconds aren't those of the agent or tool")
    backup = testbed.backup(full=True)
    with testbed.last_snapshot() as device:
        peers = [run_qemu(testbed, device), run_partclone(testbed, device)]
    report.line("", "s", "MiB written", "own CPU s", "target CPU s", "s, ratio", "MiB, ratio", "CPU, ratio")
    own = (backup.volume, backup.written, backup.own_cpu)
    report.line("bekd, the volume", *numbers(backup.volume, backup.written / MEBIBYTE, backup.own_cpu,
                                             backup.target_cpu))
    report.line("  with the snapshot and the rest", f"{backup.whole:.2f}")
    for peer in peers:
        ratios = [value / other for value, other in zip(own, (peer.seconds, peer.written, peer.own_cpu))]
        report.line(peer.name, *numbers(peer.seconds, peer.written / MEBIBYTE, peer.own_cpu, peer.target_cpu,
                                        *ratios))
