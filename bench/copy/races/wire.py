"""Full backups to a distant target, against qemu's copy of the same snapshot over the same distance, and how
many commands in flight would be best there."""
import itertools

from bench.copy import files
from bench.copy.distance import ROUND_TRIPS, portal_of
from bench.copy.floor import Window, beginning_of, copied_ranges, image_alone
from bench.copy.report import GIBIBYTE, MEBIBYTE, numbers
from bench.copy.testbed import Testbed
from bench.copy.tools import require_tools, run_qemu

GIBIBYTES = 2
BOUND = 0.9
DEPTHS = (1, 4, 16, 32, 64)
COMMAND_BYTES = (1 << 16, 1 << 18)
MOVED = 128 * MEBIBYTE


def race_round(testbed, report, portal):
    """The seconds of the copy phase and of the tool, which copies the whole snapshot. For comparison the tool
    also copies the file behind the device, in which it can find the holes."""
    backup = testbed.backup(portal, full=True)
    with testbed.last_snapshot() as device:
        peer, of_file = (run_qemu(testbed, source, "-m", "16", portal=portal).seconds
                         for source in (device, testbed.capture))
    report.line("", *numbers(backup.copy, peer, of_file, backup.copy / peer, backup.copy / of_file))
    return backup.copy, peer


def show_depths(testbed, report, portal):
    """Shows, without a bound, what to expect of more or fewer commands in flight. Leaves noise in the
    image."""
    with testbed.last_snapshot() as device:
        ranges = list(beginning_of(copied_ranges(device, testbed.partition.volume.file_system), MOVED))
    report.line(f"s of {MOVED // MEBIBYTE} MiB, commands in flight", *map(str, DEPTHS), "best")
    for mode, size in itertools.product(("write", "read"), COMMAND_BYTES):
        taken = [image_alone(testbed, ranges, mode, Window(depth, size), portal).seconds for depth in DEPTHS]
        report.line(f"  {mode}, {size >> 10} KiB", *numbers(*taken), str(DEPTHS[taken.index(min(taken))]))


def race_distance(testbed, report, rounds, milliseconds):
    report.title(f"FULL beside qemu-img convert -n -W -m 16 at a round trip of {milliseconds} ms")
    report.line("", "copy s", "of device s", "of file s", "ratio", "to that of file")
    with portal_of(testbed.target.port, milliseconds) as portal:
        copy, peer = map(min, zip(*(race_round(testbed, report, portal) for _ in range(rounds))))
        report.bound(f"FULL beside qemu-img convert, {milliseconds} ms", copy / peer, BOUND)
        show_depths(testbed, report, portal)


def race(arguments, report):
    require_tools()
    with Testbed(arguments.directory, GIBIBYTES, images="/tmp", poisoned=False) as testbed:
        files.fill(testbed.roots[0], GIBIBYTES * GIBIBYTE // 3)
        testbed.backup(full=True) # allocates the blocks of each file
        for milliseconds in ROUND_TRIPS:
            race_distance(testbed, report, arguments.rounds, milliseconds)
