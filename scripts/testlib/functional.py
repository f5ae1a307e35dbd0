"""Runs the functional tests, each file in a namespace of its own, several at once.

    functional.py [--remember] BUILD [FILE...]

The reports go to BUILD/reports. Prints a line for each file that ends, and its output if it fails. The files
that take longest start first, according to tests/functional/durations.txt, which --remember rewrites.
"""

import argparse
import os
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from testlib.files import ROOT, Files  # noqa: E402

# More than one per processor, as the tests mostly wait.
MORE_AT_ONCE = 1


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("--remember", action="store_true", help="for the order of later runs")
    parser.add_argument("build", type=Path, metavar="BUILD")
    parser.add_argument("files", type=Path, nargs="*", metavar="FILE")
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    files = Files(ROOT / "tests" / "functional", arguments.build / "reports",
                  wrapper=[ROOT / "lab" / "namespace"], environment={"BEKD_BUILD": str(arguments.build)})
    paths = [path.resolve() for path in arguments.files] or sorted(files.folder.glob("test_*.py"))
    results = files.run_all(paths, len(os.sched_getaffinity(0)) + MORE_AT_ONCE)
    if arguments.remember:
        files.remember(results)
    return files.status(results)


if __name__ == "__main__":
    sys.exit(main())
