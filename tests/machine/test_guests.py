"""The suites of guest/, each in a machine of its own, whose reports count beside those from here."""
import os
import pathlib

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
GUEST = pathlib.Path(__file__).with_name("guest")
LIMIT_SECONDS = 1200
DISKS = (8 << 30,) * 4
REPORT = "/root/report.xml"


def suites():
    for path in sorted(GUEST.rglob("test_*.py")):
        marks = [pytest.mark.nightly] if path.parent.name == "nightly" else []
        yield pytest.param(path, id=path.stem, marks=marks)


def keep_report(machine, path):
    """Beside the report of the host's own tests, if somebody wants that."""
    if "BEKD_REPORTS" in os.environ:
        pathlib.Path(os.environ["BEKD_REPORTS"], f"guest-{path.stem}.xml").write_bytes(machine.get(REPORT))


@pytest.mark.parametrize("path", suites())
def test_guest(path, new_machine):
    machine = new_machine(disks=DISKS)
    devices = " ".join(disk.device for disk in machine.disks)
    done = machine.run(
        f"cd {ROOT} && MACHINE_DISKS='{devices}' BEKD_BUILD={ROOT}/build/release PYTHONDONTWRITEBYTECODE=1 "
        f"/usr/bin/python3 -m pytest -q -p no:cacheprovider --junitxml={REPORT} {path}",
        check=False, timeout=LIMIT_SECONDS)
    keep_report(machine, path)
    machine.cut()
    assert done.returncode == 0, done.stdout + done.stderr
