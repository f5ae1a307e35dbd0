"""A tracked volume whose machine loses its power at random moments while programs write: the next backup gets
all that has changed."""
import random
import time

import pytest

from cut_site import TrackedVolume, install

DISKS = (1 << 30, 1 << 30)
CUTS = {"ext4": 1, "xfs": 1}
MANY_CUTS = 50
LONGEST_SECONDS = 4


@pytest.fixture(scope="module")
def machine(new_machine):
    made = new_machine(disks=DISKS)
    install(made)
    return made


def cut_at_random(volume, number, chosen):
    """Every second time while there is a snapshot; else while it is only tracked."""
    volume.start_writer()
    if number % 2:
        volume.must("transition_incremental", 0)
    time.sleep(chosen.random() * LONGEST_SECONDS)
    volume.machine.cut()
    volume.come_back()
    volume.prove()
    volume.stop_writer()


def cut_many_times(machine, kind, count):
    seed = time.time_ns()
    print(f"seed {seed}")
    chosen = random.Random(seed)
    with TrackedVolume(machine, kind) as volume:
        for number in range(count):
            cut_at_random(volume, number, chosen)
        volume.figures.keep()
        assert volume.figures.missed == 0
        assert volume.figures.kept > 0


@pytest.mark.parametrize("kind", CUTS)
def test_cuts_at_random_moments(running_machine, kind):
    cut_many_times(running_machine, kind, CUTS[kind])


@pytest.mark.nightly
@pytest.mark.parametrize("kind", CUTS)
def test_many_cuts_at_random_moments(running_machine, kind):
    cut_many_times(running_machine, kind, MANY_CUTS)
