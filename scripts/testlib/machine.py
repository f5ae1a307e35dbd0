"""Runs the tests in machines of their own, as many files at once as there are processors.

    machine.py [--nightly] [--remember] REPORTS [FILE...]

Without --nightly, leaves out tests that take long or need QEMU. The reports go to REPORTS. Prints a line for
each file that ends, and its output if it fails. The files that take longest start first, according to
tests/machine/durations.txt, which --remember rewrites.
"""

import argparse
import os
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from testlib.files import ROOT, Files  # noqa: E402

NO_TESTS = 5
NIGHTLY_SECONDS = 7200 # for a file: a hundred power cuts take most of an hour
FOLDER = ROOT / "tests" / "machine"
GUESTS = FOLDER / "test_guests.py" # runs a suite of guest/ in a machine


class MachineFiles(Files):
    """Tests that drive a machine, and suites that run in one."""

    success_statuses = (0, NO_TESTS)

    def __init__(self, reports, is_nightly):
        super().__init__(FOLDER, reports, environment={"BEKD_REPORTS": str(ROOT / reports)})
        self.is_nightly = is_nightly
        self.limit = NIGHTLY_SECONDS if is_nightly else self.limit

    def arguments(self, path):
        chosen = [] if self.is_nightly else ["-m", "not nightly"]
        is_guest = (FOLDER / "guest") in path.parents
        return [*chosen, *(["--guest", path, GUESTS] if is_guest else [path])]

    def all(self):
        return sorted([*(path for path in FOLDER.glob("test_*.py") if path != GUESTS),
                       *FOLDER.glob("guest/**/test_*.py")])


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("--nightly", action="store_true", help="all of it")
    parser.add_argument("--remember", action="store_true", help="for the order of later runs")
    parser.add_argument("reports", type=Path, metavar="REPORTS")
    parser.add_argument("files", type=Path, nargs="*", metavar="FILE")
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    files = MachineFiles(arguments.reports, arguments.nightly)
    paths = [path.resolve() for path in arguments.files] or files.all()
    results = files.run_all(paths, len(os.sched_getaffinity(0)))
    if arguments.remember:
        files.remember(results)
    return files.status(results)


if __name__ == "__main__":
    sys.exit(main())
