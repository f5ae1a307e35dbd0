"""Examines a volume after a test has changed or damaged it, and prints the result as JSON.

    look.py files DIRECTORY FIRST LAST    the files of busy.py that are missing or changed
    look.py own DEVICE KIND DIRECTORY     the extents of the driver's own files: [offset, length] each
    look.py devices                       the driver's status of its devices, after it has checked them
    look.py steps CALLS COMMAND...        runs a command; the calls by which it changes something:
                                          [name, number] each
"""
import collections
import json
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[3]
sys.path[:0] = [str(ROOT), str(ROOT / "tests" / "functional")]

from busy import content  # noqa: E402
from lab import driver  # noqa: E402
from lab.images import extents_on  # noqa: E402
from tolvubd_site import must  # noqa: E402

TRACE = pathlib.Path("/tmp/tolvubd.trace")
# Calls that change nothing.
QUESTIONS = re.compile(r"DM_(VERSION|DEV_STATUS|TABLE_STATUS|TABLE_DEPS|LIST_\w+)|FS_IOC_FIEMAP|BLKGETSIZE")


def files(directory, first, last):
    paths = {number: pathlib.Path(directory, f"kept-{number}") for number in range(int(first), int(last) + 1)}
    return [number for number, path in paths.items()
            if not path.exists() or path.read_bytes() != content(number)]


def own(device, kind, directory):
    root = pathlib.Path(directory)
    return [place for path in root.glob(".tolvu*") for place in extents_on(device, kind, root, path.name)]


def devices():
    must("start")
    return driver.devices()


def steps(calls, *command):
    subprocess.run(["strace", "-o", TRACE, "-e", f"trace={calls}", *command], check=True, capture_output=True,
                   timeout=60)
    counts = collections.Counter()
    found = []
    for line in TRACE.read_text(encoding="utf-8").splitlines():
        name = re.match(r"\w*", line)[0]
        counts[name] += 1
        if name in calls.split(",") and not QUESTIONS.search(line):
            found.append((name, counts[name]))
    return found


if __name__ == "__main__":
    print(json.dumps(globals()[sys.argv[1]](*sys.argv[2:])))
