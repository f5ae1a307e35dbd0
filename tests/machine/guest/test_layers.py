"""Volumes tracked by device-mapper, while programs write: administrators' actions, and a store that is too
small. The most important cases; the others are in nightly."""
import pytest

from dm_site import Protected, logical_volumes
from lab import driver
from tolvubd_site import Volume, call, layers, must
from verbs import VERBS, check_verb, remove_volumes

SECTORS = 128 * 2048
COW_MEBIBYTES = 8
MORE_THAN_FITS = 20 << 20


@pytest.mark.parametrize("verb", [verb for verb in VERBS if verb.every_run_state], ids=lambda verb: verb.name)
def test_telling_verb(group, verb, record_property):
    record_property("verb", check_verb(group, verb, verb.every_run_state))


def test_overflow_is_an_error_of_the_snapshot_alone(group, record_property):
    """Programs aren't affected, the snapshot can't be read, the status says why, and tracking continues; also
    the next time."""
    with Volume("data", "ext4", SECTORS, logical_volumes(group)) as volume:
        volume.write("large", b"0" * MORE_THAN_FITS)
        with Protected(volume, cow_mebibytes=COW_MEBIBYTES) as protected:
            assert layers()
            for digit in (b"1", b"2"):
                volume.write("large", digit * MORE_THAN_FITS)
                assert protected.check_snapshot() == "snapshot ended (ENOSPC)"
                must("transition_incremental", 0)
                assert not call("transition_incremental", 0)
                assert protected.error() == 0
                device, = driver.devices()
                assert device["snapshot_need"] > device["snapshot_room"]
                assert protected.next_record() == "set right"
            protected.end()
    remove_volumes(group)
    record_property("verb", "store too small | snapshot | | snapshot ended (ENOSPC); set right")
