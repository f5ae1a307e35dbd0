"""The suites of guest/, each in a machine of its own. Their reports are counted with the host's."""
import os
import pathlib
import shlex

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
GUEST = pathlib.Path(__file__).with_name("guest")
LIMIT_SECONDS = 3600 # the caller may set a shorter one
DISKS = (8 << 30,) * 4
REPORT = "/root/report.xml"


def pytest_generate_tests(metafunc):
    """One test for each suite, or only for the one that --guest names."""
    chosen = metafunc.config.getoption("guest")
    paths = [pathlib.Path(chosen).resolve()] if chosen else sorted(GUEST.rglob("test_*.py"))
    metafunc.parametrize("path", [
        pytest.param(path, id=path.stem, marks=[pytest.mark.nightly] if path.parent.name == "nightly" else [])
        for path in paths])


def keep_report(machine, path):
    """Copies the report beside those of the host's tests, if reports are wanted."""
    if "BEKD_REPORTS" in os.environ:
        pathlib.Path(os.environ["BEKD_REPORTS"], f"guest-{path.stem}.xml").write_bytes(machine.get(REPORT))


def test_guest(path, new_machine):
    machine = new_machine(disks=DISKS)
    environment = {"MACHINE_DISKS": " ".join(disk.device for disk in machine.disks),
                   "BEKD_BUILD": ROOT / "build" / "release", "PYTHONDONTWRITEBYTECODE": 1, "LANG": "C.UTF-8"}
    words = ["env", f"--chdir={ROOT}", *(f"{name}={value}" for name, value in environment.items()),
             "/usr/bin/python3", "-m", "pytest", "-q", "-p", "no:cacheprovider", f"--confcutdir={GUEST}",
             f"--junitxml={REPORT}", "--override-ini=junit_family=xunit1", path] # has tests' properties
    done = machine.run(shlex.join(map(str, words)), check=False, timeout=LIMIT_SECONDS)
    keep_report(machine, path)
    assert done.returncode == 0, done.stdout + done.stderr
