"""The files that a lost tracking has left on its volume."""
import pytest

from dm_site import COW_MEBIBYTES, logical_volumes
from lab import driver
from lab.commands import run
from lab.lvm import VolumeGroup
from tolvubd_site import SNAPSHOT, Volume, cow_files, layers, must, states

SECTORS = 160 * 2048
FREE_MEBIBYTES = 16


@pytest.fixture
def volume():
    with VolumeGroup() as group, Volume("data", "ext4", SECTORS, logical_volumes(group)) as made:
        yield made
        driver.forget_devices()


def free(volume):
    return int(run("findmnt", "-bno", "AVAIL", volume.mount_point)) >> 20


def test_files_of_a_lost_tracking_give_way_to_new_ones(volume):
    """The files are locked, and there is no room for others beside them."""
    must("setup_snapshot", 0, volume.device, volume.cow, COW_MEBIBYTES)
    driver.restart()
    assert (states(), layers(), cow_files(volume)) == ({}, [], [".tolvu", ".tolvu.era"])
    volume.write("large", bytes(free(volume) - FREE_MEBIBYTES << 20))
    must("setup_snapshot", 0, volume.device, volume.cow, COW_MEBIBYTES)
    assert states() == {0: SNAPSHOT}
