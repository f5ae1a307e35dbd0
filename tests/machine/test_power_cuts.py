"""A tracked volume whose machine loses power at random moments while programs write: the next backup gets all
changes."""
import os
import random
import time

import pytest

from cut_site import TrackedVolume, install

DISKS = (1 << 30, 1 << 30)
MANY_CUTS = int(os.environ.get("BEKD_CUTS", "50"))
LONGEST_SECONDS = 4


@pytest.fixture(scope="module")
def machine(new_machine):
    made = new_machine(disks=DISKS)
    install(made)
    return made


def cut_at_random(volume, number, chosen):
    """Cuts the power: every second time while there is a snapshot, otherwise while the volume is only
    tracked."""
    volume.start_writer()
    if number % 2:
        volume.must("transition_incremental", 0)
    time.sleep(chosen.random() * LONGEST_SECONDS)
    volume.machine.cut()
    volume.come_back()
    volume.verify_next_record()
    volume.stop_writer()


def cut_many_times(machine, kind, count):
    seed = time.time_ns()
    print(f"seed {seed}")
    chosen = random.Random(seed)
    with TrackedVolume(machine, kind) as volume:
        for number in range(count):
            cut_at_random(volume, number, chosen)
        return volume.totals


def test_a_cut_while_there_is_a_snapshot(running_machine):
    totals = cut_many_times(running_machine, "ext4", 1)
    assert (totals.kept, totals.missed) == (1, 0)


@pytest.mark.nightly
@pytest.mark.parametrize("kind", ("ext4", "xfs"))
def test_many_cuts_at_random_moments(running_machine, kind):
    """Tracking survives every cut, each of which is followed by one start of the machine."""
    totals = cut_many_times(running_machine, kind, MANY_CUTS)
    assert (totals.kept, totals.missed) == (MANY_CUTS, 0)
