"""A snapshot's store that is too small: an error of that snapshot and of nothing else."""
import pytest

from dm_site import Protected, Volume, logical_volumes
from lab.driver import info
from lab.lvm import VolumeGroup
from tolvubd_site import call, must

SECTORS = 128 * 2048
COW_MEBIBYTES = 4
MORE_THAN_FITS = 12 << 20


@pytest.fixture
def volume():
    with VolumeGroup() as group, Volume("data", "ext4", SECTORS, logical_volumes(group)) as made:
        yield made


def test_overflow_is_an_error_of_the_snapshot_alone(volume, record_property):
    """Programs don't notice, the snapshot can't be read, the status says why, and tracking goes on."""
    volume.write("large", b"1" * MORE_THAN_FITS)
    with Protected(volume, cow_mebibytes=COW_MEBIBYTES) as protected:
        volume.write("large", b"2" * MORE_THAN_FITS)
        assert protected.look() == "snapshot ended (ENOSPC)"
        assert [device["error"] for device in info()["devices"]] != [0]
        must("transition_incremental", 0)
        assert protected.error() == 0
        assert protected.next_record() == "set right"
        record_property("verb", "store too small | snapshot | | snapshot ended (ENOSPC); set right")
        protected.end()


def test_writes_while_it_overflows_are_in_the_next_record(volume):
    """Several times in a row."""
    with Protected(volume, cow_mebibytes=COW_MEBIBYTES) as protected:
        for number in range(3):
            volume.write("large", bytes([number]) * MORE_THAN_FITS)
            assert protected.look() == "snapshot ended (ENOSPC)"
            must("transition_incremental", 0)
            assert not call("transition_incremental", 0)
            assert protected.next_record() == "set right"
        protected.end()
