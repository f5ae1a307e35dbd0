"""The power is cut while a function of the driver is held before one of its steps, and programs write: after
the start the volume is there, no synced data is lost, and the next record is right."""
import os
import time

import pytest

from cut_site import COW_MEBIBYTES, DEVICE, MOUNT, SNAPSHOT, TRACKING, TrackedVolume, install, stopped_at

pytestmark = pytest.mark.nightly
DISKS = (1 << 30, 1 << 30)
CALLS = "ioctl,pwrite64,fsync,rename,unlink,fallocate,mknodat"
STANDING_SECONDS = 2
STEPS = int(os.environ.get("BEKD_CUTS", "5")) # of each function, evenly spread
BEFORE = {"setup_snapshot": None, "transition_incremental": SNAPSHOT, "transition_snapshot": TRACKING,
          "destroy": SNAPSHOT}


@pytest.fixture(scope="module")
def machine(new_machine):
    made = new_machine(disks=DISKS)
    install(made)
    return made


def arguments(volume, function):
    return {"setup_snapshot": (DEVICE, f"{MOUNT}/.tolvu", COW_MEBIBYTES),
            "transition_snapshot": (f"{MOUNT}/{volume.files[1]}", COW_MEBIBYTES)}.get(function, ())


def bring_to(volume, state):
    """Brings the device into a state, whatever state it is in now."""
    now = volume.state()
    if state is None:
        volume.destroy()
    elif now is None:
        volume.set_up()
        bring_to(volume, state)
    elif (now, state) == (SNAPSHOT, TRACKING):
        volume.must("transition_incremental", 0)
    elif (now, state) == (TRACKING, SNAPSHOT):
        volume.check_record()


def steps_of(volume, function):
    bring_to(volume, BEFORE[function])
    found = volume.look("steps", CALLS, *volume.command(function, 0, *arguments(volume, function)))
    assert len(found) > 10
    volume.destroy()
    return found


def cut_at(volume, function, step):
    volume.start_writer()
    bring_to(volume, BEFORE[function])
    with stopped_at(volume, step, function, 0, *arguments(volume, function)):
        time.sleep(STANDING_SECONDS)
        volume.machine.cut()
    volume.come_back()
    volume.verify_next_record()
    volume.stop_writer()


@pytest.mark.parametrize("kind", ("ext4", "xfs"))
@pytest.mark.parametrize("function", BEFORE)
def test_cut_at_each_step(running_machine, function, kind):
    with TrackedVolume(running_machine, kind) as volume:
        steps = steps_of(volume, function)
        chosen = steps[::max(1, len(steps) // STEPS)]
        volume.totals.title = f"{kind}, {function}, {len(chosen)} of {len(steps)} steps"
        for step in chosen:
            cut_at(volume, function, step)
        assert volume.totals.missed == 0
