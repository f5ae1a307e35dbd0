"""What becomes of tracking when the machine is restarted, in order and not, with and without somebody who writes to
the volumes meanwhile."""
import json
import pathlib

import pytest

from lab.virtual.driver import install

TRACKED = pathlib.Path(__file__).with_name("tracked.py")
DISKS = (2 << 30, 2 << 30)
NAMES = ("ext4", "xfs")
ALL_TRACKED = dict.fromkeys(NAMES, "tracked")
LOST = "full comparison (No such file or directory)"
# As a rescue system does that knows nothing of us: the volumes appear, and nobody puts anything on them.
RESCUE = "rm /etc/tolvubd/boot.json; "


def tracked(machine, verb, *names):
    return json.loads(machine.run("/usr/bin/python3", TRACKED, verb, *(names or NAMES)).stdout)


@pytest.fixture(scope="module")
def prepared(machine):
    """A machine with the driver installed and two volumes that it can track."""
    install(machine)
    machine.run("/usr/bin/python3", TRACKED, "make", *(disk.device for disk in machine.disks))
    machine.reboot()
    return machine


@pytest.fixture
def tracking(prepared):
    """The same, while both volumes are tracked and something has been written to them."""
    if not prepared.is_on():
        prepared.start()
    prepared.run("tolvuctl list | while read -r minor rest; do case $minor in [0-9]*) "
                 "tolvuctl destroy $minor; esac; done; tolvuctl cleanup; rm -f /volumes/*/.tolvu*")
    tracked(prepared, "begin")
    tracked(prepared, "write")
    return prepared


def test_goes_on_after_a_restart_in_order(tracking):
    tracking.reboot()
    assert tracked(tracking, "finish") == ALL_TRACKED


def test_goes_on_after_a_power_cut(tracking):
    tracking.cut()
    tracking.start()
    assert tracked(tracking, "finish") == ALL_TRACKED


def test_goes_on_over_several_restarts_of_all_kinds(tracking):
    for stop in (tracking.reboot, tracking.cut, tracking.reboot):
        stop()
        if not tracking.is_on():
            tracking.start()
        tracked(tracking, "write")
    assert tracked(tracking, "finish") == ALL_TRACKED
