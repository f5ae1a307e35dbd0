"""The fixtures of tests inside a machine, which have a whole Debian system of their own, and disks."""
import os
import pathlib
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[3]
sys.path[:0] = [str(ROOT), str(ROOT / "tests" / "functional")]
pytest.register_assert_rewrite("dm_site", "verbs", "tolvubd_site")

from lab.lvm import VolumeGroup  # noqa: E402
from lvm_site import site_on  # noqa: E402


@pytest.fixture(scope="session")
def disks():
    """The devices of the machine's disks, which are empty at first."""
    return os.environ["MACHINE_DISKS"].split()


@pytest.fixture(scope="module")
def agent_site(disks):
    """The environment that the agent's functional tests need, with logical volumes."""
    with site_on(*disks[:2]):
        yield


@pytest.fixture(scope="module")
def group():
    """A volume group of the module's own."""
    with VolumeGroup() as made:
        yield made
