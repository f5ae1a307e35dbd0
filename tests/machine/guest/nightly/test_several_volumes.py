"""Several volumes at once, each with a program that writes to it."""
import contextlib

import pytest

from dm_site import Protected, logical_volumes
from lab.lvm import VolumeGroup
from tolvubd_site import Volume, layers

SECTORS = 96 * 2048
COW_MEBIBYTES = 12
LAYERS_WHILE_TRACKING = 3


@pytest.mark.parametrize("count", (2, 5))
def test_several_volumes(count, record_property):
    with VolumeGroup() as group, contextlib.ExitStack() as stack:
        volumes = [stack.enter_context(Volume(f"data{number}", "ext4", SECTORS, logical_volumes(group)))
                   for number in range(count)]
        protected = [stack.enter_context(Protected(volume, minor, COW_MEBIBYTES))
                     for minor, volume in enumerate(volumes)]
        for each in protected:
            assert each.check_snapshot() == "snapshot right"
        for each in protected:
            each.track()
        assert len(layers()) == count * LAYERS_WHILE_TRACKING
        for each in protected:
            assert each.next_record() == "set right"
        for each in protected:
            assert each.check_snapshot() == "snapshot right"
            each.writer.end()
    record_property("verb", f"{count} volumes at once | both | | snapshots right; sets right")
