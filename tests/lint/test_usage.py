"""The project's own programs, used wrongly: one line names the fault, and nothing is begun."""

import os
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
PRESETS = "release, debug, asan, tsan, fuzz and coverage"
NOT_POSITIVE = "not a positive number: "
CERTIFICATE = "--cert: none.pem can't be read (No such file or directory); lab/site up --paired makes"


def use(directory, command):
    path = f"{ROOT}/{command}".split(" ")
    if path[0].endswith(".py"):
        path.insert(0, "/usr/bin/python3")
    return subprocess.run(path, cwd=directory, capture_output=True, text=True, timeout=60,
                          stdin=subprocess.DEVNULL, env={**os.environ, "PYTHONDONTWRITEBYTECODE": "1"})


@pytest.mark.parametrize("command, text", [
    ("scripts/build bogus", f"scripts/build: no preset bogus; there are {PRESETS}"),
    ("scripts/build --help", f"scripts/build: no preset --help; there are {PRESETS}"),
    ("scripts/coverage --bogus", "usage: scripts/coverage [FILTER]"),
    ("scripts/coverage one other", "usage: scripts/coverage [FILTER]"),
    ("scripts/deps bogus", "scripts/deps: scripts/test has no part bogus; see scripts/test --help"),
    ("scripts/deps unit bogus", "scripts/deps: scripts/test has no part bogus; see scripts/test --help"),
    ("scripts/format --root /no/such", "format: error: argument --root: there is no directory /no/such"),
    ("scripts/lint --root /no/such", "lint: error: argument --root: there is no directory /no/such"),
    ("scripts/look --root /no/such", "look: error: argument --root: there is no directory /no/such"),
    ("lab/appliance --cert none.pem host", "lab/appliance: " + CERTIFICATE),
    ("lab/hfs_maker.py /no/such", "/no/such: No such file or directory; it must be a device, or a file of"),
    ("lab/hfs_maker.py .", "lab/hfs_maker.py: .: Is a directory; it must be a device"),
    ("lab/hfs_maker.py empty", "lab/hfs_maker.py: empty: the volume is too small"),
    ("lab/hfs_maker.py --block-size 3 empty", "error: argument --block-size: invalid choice: 3"),
    ("tests/images/make bogus", "tests/images/make: there is no image bogus; there are ext/ext2-1k, "),
    ("tests/images/make ext/ext2-1k bogus", "tests/images/make: there is no image bogus; there are "),
    ("tests/fuzz/make_seeds.py", "error: the following arguments are required: DIRECTORY"),
    ("tests/fuzz/make_seeds.py empty", "make_seeds.py: empty/"),
    ("tests/fuzz/make_era_seeds.py", "error: the following arguments are required: DIRECTORY"),
    ("tests/fuzz/make_era_seeds.py empty", "make_era_seeds.py: empty: File exists"),
    ("tests/fuzz/make_lvm_seeds.py --bogus", "error: the following arguments are required: DIRECTORY"),
    ("tests/fuzz/make_lvm_seeds.py bogus", "error: argument DIRECTORY: there is no directory bogus"),
    ("tests/fuzz/make_zephane_seeds.py one other", "error: unrecognized arguments: other"),
    ("tests/fuzz/make_zephane_seeds.py empty", "make_zephane_seeds.py: empty/"),
    ("tests/unit/platform/tolvubd/lvm/make bogus", "error: argument DIRECTORY: there is no directory bogus"),
    ("bench/block/aged_ext4.py", "error: the following arguments are required: BITMAP"),
    ("bench/block/aged_ext4.py /no/such", "error: argument BITMAP: no file can be written there: /no/such"),
    ("bench/fs/usedmap.py --bogus", "no volume has all of these words: --bogus"),
    ("bench/tolvubd/era.py --bogus", "error: unrecognized arguments: --bogus"),
    ("bench/tolvubd/era.py many", f"error: argument GIBIBYTES: {NOT_POSITIVE}many"),
    ("bench/tolvubd/freeze.py 1024 0", f"error: argument ROUNDS: {NOT_POSITIVE}0"),
    ("bench/tolvubd/tracking.py", "error: the following arguments are required: DISK"),
    ("bench/tolvubd/tracking.py empty", "error: argument DISK: there is no block device empty"),
    ("bench/tolvubd/tracking.py /no/such 1", "error: argument DISK: there is no block device /no/such"),
])
def test_refusal_names_the_fault(tmp_path, command, text):
    (tmp_path / "empty").touch()
    done = use(tmp_path, command)
    assert done.returncode != 0 and done.stdout == ""
    assert text in done.stderr.splitlines()[-1]
    assert [path.name for path in tmp_path.iterdir()] == ["empty"]


@pytest.mark.parametrize("module", ["api.api_host", "api.api_status", "api.api_strangers", "copy.race",
                                    "restore.write", "transport.zephane"])
def test_benchmarks_refuse_unknown_options(module):
    done = subprocess.run(["/usr/bin/python3", "-B", "-m", f"bench.{module}", "--bogus"], cwd=ROOT,
                          capture_output=True, text=True, timeout=60)
    assert done.returncode == 2
    assert done.stderr.endswith("error: unrecognized arguments: --bogus\n")
