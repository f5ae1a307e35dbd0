"""Races whole backups over iSCSI against the least that a copy can take, and against other tools. Run it on a
release build:

    BEKD_BUILD=build/release lab/namespace /usr/bin/python3 -m bench.copy.race [--gibibytes N] [RACE...]

Races, all if none is given:

- floor: a FULL copy, against direct reads and writes of the same blocks: one after the other, and the slower
  of both alone, with as many commands in flight as suit the target;
- kinds: a DIFFERENTIAL_MERGE of an equal image, against the slower side's reads; and INCREMENTAL backups;
- wire: a FULL copy, against qemu-img's copy of the whole snapshot, at round trips of 0, 0.5 and 5 ms; and how
  long commands take, by the number in flight;
- call: write calls of the transport, against qemu-img bench with as many bytes, at the same round trips;
- volumes: five volumes in one backup, against five backups;
- peers: a FULL, against other tools, with the target's disk;
- memory: the daemon's memory, for a volume of 2 TiB.

A ratio above its bound is marked, and the exit status is 1 then. Files of all sizes use a third of each
volume. lab/delay.py makes the round trips on this machine, so what it adds falls on both sides of a race.

The floor and the tools read the bytes of the snapshot that the backup before them has copied: the driver
keeps them as a sparse file when the backup ends, and the same kind of loop device shows them again. So all
sides move the same blocks from the same device to the same disk of the same target, in turns. The best of
several rounds counts, as the machine's other work comes and goes.

The target's images are in memory, which takes a third of the volume's size (all of it for wire). Data that
the driver has just read is in memory too, if there is room: a disk would make every ratio look better. For
peers, the image is on the disk below --directory, like the other big files, about 50 GiB of them for a volume
of 20.
The volume of the race "memory" has 2 TiB, almost all of it holes, and the driver reads every zero.
"""
import argparse
import pathlib
import sys

from bench.copy.races import call, copies, memory, peers, volumes, wire
from bench.copy.report import Report
from lab.arguments import positive
from lab.daemon import ROOT, require_private_site

RACES = {"floor": copies, "kinds": copies, "wire": wire, "call": call, "volumes": volumes, "peers": peers,
         "memory": memory}


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--gibibytes", type=positive, default=20,
                        help="of the volume for floor, kinds and peers; default: %(default)s")
    parser.add_argument("--rounds", type=positive, default=3, help="default: %(default)s")
    parser.add_argument("--directory", type=pathlib.Path, default=ROOT / "build/bench")
    parser.add_argument("races", nargs="*", choices=[*RACES, []], metavar="RACE", help=", ".join(RACES))
    arguments = parser.parse_args()
    arguments.races = arguments.races or list(RACES)
    return arguments


def main():
    arguments = parse_arguments()
    require_private_site()
    arguments.directory.mkdir(parents=True, exist_ok=True)
    report = Report()
    for theme in dict.fromkeys(RACES[name] for name in RACES if name in arguments.races):
        theme.race(arguments, report)
    if report.broken:
        sys.exit(f"\nbroken: {', '.join(report.broken)}")


if __name__ == "__main__":
    main()
