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
    forget_all(prepared)
    tracked(prepared, "begin")
    tracked(prepared, "write")
    return prepared


def forget_all(machine):
    for line in machine.run("tolvuctl", "list").stdout.splitlines()[1:]:
        machine.run("tolvuctl", "destroy", line.split()[0], check=False)
    machine.run("tolvuctl cleanup; chattr -f -i /volumes/*/.tolvu*; rm -f /volumes/*/.tolvu*")


def stop_and_start(machine, stop):
    stop()
    if not machine.is_on():
        machine.start()


def start_elsewhere(machine, stop):
    """Starts it as a rescue system does that knows nothing of tracking: the volumes appear, and are mounted."""
    machine.run("mv /etc/tolvubd/boot.json /etc/tolvubd/aside; sync")
    stop_and_start(machine, stop)
    assert "era" not in machine.run("dmsetup", "table").stdout
    machine.run("mv /etc/tolvubd/aside /etc/tolvubd/boot.json; sync")


def test_goes_on_after_a_restart_in_order(tracking):
    tracking.reboot()
    assert tracked(tracking, "finish") == ALL_TRACKED


def test_goes_on_after_a_power_cut(tracking):
    tracking.cut()
    tracking.start()
    assert tracked(tracking, "finish") == ALL_TRACKED


def test_goes_on_over_several_restarts_of_all_kinds(tracking):
    for stop in (tracking.reboot, tracking.cut, tracking.reboot):
        stop_and_start(tracking, stop)
        tracked(tracking, "write")
    assert tracked(tracking, "finish") == ALL_TRACKED


def test_a_snapshot_that_was_there_is_there_again(tracking):
    tracked(tracking, "snapshot")
    stop_and_start(tracking, tracking.cut)
    assert tracked(tracking, "compare") == dict.fromkeys(NAMES, "the same")


@pytest.mark.parametrize("stop", ["reboot", "cut"])
def test_ends_when_somebody_else_had_the_volumes_mounted(tracking, stop):
    start_elsewhere(tracking, getattr(tracking, stop))
    tracked(tracking, "write")
    tracking.reboot()
    assert tracked(tracking, "finish") == dict.fromkeys(NAMES, LOST)
    tracked(tracking, "begin")


def test_ends_when_a_volume_had_its_own_table_while_it_was_mounted(tracking):
    tracking.run("lvchange --refresh vg/ext4 && lvchange --refresh vg/xfs")
    tracked(tracking, "write")
    tracking.reboot()
    assert tracked(tracking, "finish") == dict.fromkeys(NAMES, LOST)


def test_no_volume_is_named_twice_and_none_is_held_back(prepared):
    """Layers carry what their volume does."""
    stop_and_start(prepared, prepared.reboot)
    links = prepared.run("udevadm settle; ls -l /dev/disk/by-uuid /dev/disk/by-id").stdout
    below = prepared.run("dmsetup info -c --noheadings -o name,blkdevname").stdout.split()
    layers = [line.split(":")[1] for line in below if line.startswith("tolvubd-")]
    assert layers and not [name for name in layers if f"/{name}\n" in links]
    assert prepared.run("findmnt /volumes/ext4 /volumes/xfs", check=False).returncode == 0
