"""Machines for tests that need a kernel, a boot or a power cut of their own."""
import pathlib
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT), str(ROOT / "tests")]

from lab.virtual.uml import UmlMachine  # noqa: E402

DISKS = (4 << 30, 4 << 30)
MACHINES = pytest.StashKey()


def pytest_addoption(parser):
    parser.addoption("--guest", help="the suite of guest/ for test_guests.py to run, if not all")


def pytest_configure(config):
    config.addinivalue_line("markers", "nightly: takes long; run by scripts/test machine only")
    config.stash[MACHINES] = []


def pytest_ignore_collect(collection_path):
    """Ignores the tests in guest/, which run inside a machine."""
    return collection_path == ROOT / "tests" / "machine" / "guest" or None


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    """Adds to the report of a failed test the consoles of all machines that it could use."""
    report = (yield).get_result()
    if report.failed:
        for machine in item.config.stash[MACHINES]:
            report.sections.append((f"console of {machine.directory.name}", machine.console()))


@pytest.fixture(scope="module")
def new_machine(request):
    """new_machine(CLASS, DISKS, OPTIONS) makes a machine with disks of these sizes in bytes, and starts it
    unless `is_on` is false. It is removed after the module's last test."""
    known = request.config.stash[MACHINES]

    def make(kind=UmlMachine, disks=DISKS, is_on=True, **options):
        machine = kind(**options)
        machine.__enter__()
        request.addfinalizer(lambda: (known.remove(machine), machine.__exit__(None, None, None)))
        known.append(machine)
        for size in disks:
            machine.disk(size)
        return machine.start() if is_on else machine

    return make


@pytest.fixture(scope="module")
def machine(request, new_machine):
    """A machine of user-mode Linux with two disks, or with disks of the sizes in the module's `DISKS`."""
    return new_machine(disks=getattr(request.module, "DISKS", DISKS))


@pytest.fixture
def running_machine(machine):
    """The module's machine, switched on again if a test has left it off."""
    if not machine.is_on():
        machine.start()
    return machine
