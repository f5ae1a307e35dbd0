"""The environment of test suites that run in a machine."""
import os
import pathlib
import subprocess

from lab.commands import run
from lab.daemon import ROOT, program


def test_systemd_is_the_first_process_and_all_its_units_are_well():
    assert pathlib.Path("/proc/1/comm").read_text(encoding="ascii") == "systemd\n"
    assert run("systemctl", "--failed", "--plain", "--no-legend") == ""


def test_disks_are_there_and_empty(disks):
    assert len(disks) == 4
    for disk in disks:
        with open(disk, "rb") as device:
            assert device.seek(0, os.SEEK_END) == 8 << 30
            device.seek(0)
            assert not any(device.read(1 << 20))


def test_programs_of_the_build_find_their_libraries():
    assert "not found" not in run("ldd", program())
    done = subprocess.run([program(), "--help"], capture_output=True, text=True, check=False)
    assert done.stdout.startswith("bekd version"), done.stderr


def test_namespaces_of_the_lab_work():
    assert run(ROOT / "lab" / "namespace", "findmnt", "-no", "FSTYPE", "/tmp") == "tmpfs"
