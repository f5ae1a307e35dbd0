"""The driver's promises to its callers, with the tests that hold for both ways to take snapshots: in a
machine, which also has logical volumes."""
import pathlib
import shlex

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
DISKS = (2 << 30,) * 3
LIMIT_SECONDS = 3000
# Failures of single calls are tested only with captures: if LVM's metadata can't be read, a volume may be
# captured.
TESTS = {"test_tolvubd.py": "", "test_tolvubd_refusals.py": "", "test_tolvubd_restart.py": "",
         "test_tolvubd_faults.py": "logical and kill_at and not reload"}


@pytest.mark.nightly
@pytest.mark.parametrize(("name", "chosen"), TESTS.items())
def test_contract(running_machine, name, chosen):
    environment = {"MACHINE_DISKS": " ".join(disk.device for disk in running_machine.disks),
                   "BEKD_BUILD": ROOT / "build" / "release", "PYTHONDONTWRITEBYTECODE": 1, "LANG": "C.UTF-8"}
    words = ["env", f"--chdir={ROOT}", *(f"{name}={value}" for name, value in environment.items()),
             "lab/namespace", "/usr/bin/python3", "-m", "pytest", "-q", "-p", "no:cacheprovider",
             "-k", chosen, f"tests/functional/{name}"]
    done = running_machine.run(shlex.join(map(str, words)), check=False, timeout=LIMIT_SECONDS)
    assert done.returncode == 0, done.stdout + done.stderr
