"""Runs the functional tests, each file in a namespace of its own, several at once.

    functional.py [--remember] BUILD [FILE...]

The reports go to BUILD/reports. Prints a line for each file that ends, and what it has printed if it fails.
The files that take longest begin, as told by tests/functional/durations.txt, which --remember writes anew.
"""

import argparse
import concurrent.futures
import os
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
TESTS = ROOT / "tests" / "functional"
DURATIONS = TESTS / "durations.txt"
LIMIT_SECONDS = 1200
# Beside each processor, as the tests mostly wait.
MORE_AT_ONCE = 1


def run(build, path):
    """Returns the file, its exit status, its seconds and what it printed."""
    begin = time.monotonic()
    command = [ROOT / "lab" / "namespace", "/usr/bin/python3", "-m", "pytest", "-q", "-p", "no:cacheprovider",
               f"--junitxml={build}/reports/{path.stem}.xml", path]
    try:
        done = subprocess.run(command, cwd=ROOT, env={**os.environ, "BEKD_BUILD": str(build)}, text=True,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              check=False, timeout=LIMIT_SECONDS)
    except subprocess.TimeoutExpired as error:
        output = (error.stdout or b"").decode(errors="replace")
        return path, -1, time.monotonic() - begin, f"{output}\nnot done within {LIMIT_SECONDS} s"
    return path, done.returncode, time.monotonic() - begin, done.stdout


def remembered():
    """The seconds that each file took when it was last remembered, by its name."""
    lines = DURATIONS.read_text().splitlines() if DURATIONS.exists() else []
    return {name: int(seconds) for seconds, name in map(str.split, lines)}


def remember(results):
    durations = remembered() | {path.name: round(seconds) for path, _, seconds, _ in results}
    lines = [f"{seconds:5} {name}\n" for name, seconds in sorted(durations.items(), key=lambda item: -item[1])
             if (TESTS / name).exists()]
    DURATIONS.write_text("".join(lines))


def run_all(build, files):
    """Yields what run() returns for each file as it ends. Files that nobody remembers begin."""
    seconds = remembered()
    files = sorted(files, key=lambda path: -seconds.get(path.name, LIMIT_SECONDS))
    with concurrent.futures.ThreadPoolExecutor(len(os.sched_getaffinity(0)) + MORE_AT_ONCE) as pool:
        for done in concurrent.futures.as_completed([pool.submit(run, build, path) for path in files]):
            yield done.result()


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("--remember", action="store_true", help="for the order of later runs")
    parser.add_argument("build", type=Path, metavar="BUILD")
    parser.add_argument("files", type=Path, nargs="*", metavar="FILE")
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    (ROOT / arguments.build / "reports").mkdir(parents=True, exist_ok=True)
    files = [path.resolve() for path in arguments.files] or sorted(TESTS.glob("test_*.py"))
    results = []
    for path, status, seconds, output in run_all(arguments.build, files):
        results.append((path, status, seconds, output))
        if status != 0:
            print(f"--- {path.relative_to(ROOT)}: status {status}\n{output}")
        print(f"{len(results)}/{len(files)} {path.name}: {seconds:.1f} s", flush=True)
    if arguments.remember:
        remember(results)
    return 1 if any(status for _, status, _, _ in results) else 0


if __name__ == "__main__":
    sys.exit(main())
