"""Write calls of the transport, as in a backup, against qemu's commands for the same bytes."""
import json
import re

from bench.copy.distance import ROUND_TRIPS, portal_of
from bench.copy.process import timed
from bench.copy.report import GIBIBYTE, MEBIBYTE, numbers
from bench.copy.tools import require_tools, url_of
from lab.daemon import program
from lab.targets import Target

CALLS = 128
CALL_BYTES = 4 * MEBIBYTE
COMMANDS = 16 # in flight, as many as make one call
COMMAND_BYTES = CALL_BYTES // COMMANDS
BOUND = 1.15


def own_seconds(portal, target, image):
    printed, _, _ = timed(list(map(str, [program("bench_transport_calls"), portal, target.name, image.lun,
                                         CALLS])))
    measured = json.loads(printed)
    assert measured["bytes"] == CALLS * CALL_BYTES, measured
    return measured["seconds"]


def qemu_seconds(portal, target, image):
    """The seconds by qemu's own clock, which starts after the login, like ours."""
    printed, _, _ = timed(["qemu-img", "bench", "-w", "-t", "none", "-f", "raw", "-d", str(COMMANDS), "-s",
                           str(COMMAND_BYTES), "-c", str(CALLS * COMMANDS), url_of(portal, target, image)])
    return float(re.search(r"Run completed in ([\d.]+) seconds", printed)[1])


def race_distance(target, image, report, rounds, milliseconds):
    with portal_of(target.port, milliseconds) as portal:
        own, peer = map(min, zip(*((own_seconds(portal, target, image), qemu_seconds(portal, target, image))
                                   for _ in range(rounds))))
    report.line(f"{milliseconds} ms", *numbers(own, peer, own / peer))
    if milliseconds:
        report.bound(f"write calls beside qemu-img bench, {milliseconds} ms", own / peer, BOUND)


def race(arguments, report):
    """The round trip of 0 has no bound, as the commands have no way to go there."""
    require_tools()
    report.title(f"{CALLS} write calls of {CALL_BYTES // MEBIBYTE} MiB beside commands of "
                 f"{COMMAND_BYTES >> 10} KiB, {COMMANDS} in flight")
    report.line("", "calls s", "qemu-img s", "ratio")
    with Target() as target:
        image = target.add_image("image", GIBIBYTE)
        for milliseconds in ROUND_TRIPS:
            race_distance(target, image, report, arguments.rounds, milliseconds)
