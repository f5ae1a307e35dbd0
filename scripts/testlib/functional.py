"""Runs the functional tests, each file in a namespace of its own, as many at once as there are processors.

    functional.py BUILD [FILE...]

The reports go to BUILD/reports. Prints what each file that fails has printed, and the seconds of all.
"""

import concurrent.futures
import os
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
TESTS = ROOT / "tests" / "functional"
LIMIT_SECONDS = 1200


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


def main():
    build = Path(sys.argv[1])
    (ROOT / build / "reports").mkdir(parents=True, exist_ok=True)
    files = [Path(name).resolve() for name in sys.argv[2:]] or sorted(TESTS.glob("test_*.py"))
    # The longest are likely to take longest, and should not be left for the end.
    files.sort(key=lambda path: path.stat().st_size, reverse=True)
    with concurrent.futures.ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
        results = list(pool.map(lambda path: run(build, path), files))
    for path, status, _, output in results:
        if status != 0:
            print(f"--- {path.relative_to(ROOT)}: status {status}\n{output}")
    for path, _, seconds, _ in sorted(results, key=lambda result: -result[2]):
        print(f"{seconds:7.1f} s {path.name}")
    return 1 if any(status for _, status, _, _ in results) else 0


if __name__ == "__main__":
    sys.exit(main())
