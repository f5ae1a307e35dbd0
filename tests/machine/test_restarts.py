"""Tracking across restarts of the machine: clean ones and power cuts, with and without writes to the volumes
meanwhile."""
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
    """The same machine, with both volumes tracked, and written to since."""
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
    """Stops and starts the machine; returns when its boot is complete."""
    stop()
    if not machine.is_on():
        machine.start()
    machine.run("systemctl", "start", "tolvubd-start.service")


def start_elsewhere(machine, stop):
    """Boots the machine like a rescue system without the driver: volumes appear and are mounted."""
    machine.run("mv /etc/tolvubd/boot.json /etc/tolvubd/aside; sync")
    stop_and_start(machine, stop)
    assert "era" not in machine.run("dmsetup", "table").stdout
    machine.run("mv /etc/tolvubd/aside /etc/tolvubd/boot.json; sync")


def test_goes_on_after_a_restart_in_order(tracking):
    stop_and_start(tracking, tracking.reboot)
    assert tracked(tracking, "finish") == ALL_TRACKED


def test_goes_on_after_a_power_cut(tracking):
    stop_and_start(tracking, tracking.cut)
    assert tracked(tracking, "finish") == ALL_TRACKED


@pytest.mark.nightly
def test_goes_on_over_several_restarts_of_all_kinds(tracking):
    for stop in (tracking.reboot, tracking.cut, tracking.reboot):
        stop_and_start(tracking, stop)
        tracked(tracking, "write")
    assert tracked(tracking, "finish") == ALL_TRACKED


@pytest.mark.nightly
def test_a_snapshot_that_was_there_is_there_again(tracking):
    tracked(tracking, "snapshot")
    stop_and_start(tracking, tracking.cut)
    assert tracked(tracking, "compare") == dict.fromkeys(NAMES, "the same")


@pytest.mark.parametrize("stop", ["reboot", "cut"])
@pytest.mark.nightly
def test_ends_when_somebody_else_had_the_volumes_mounted(tracking, stop):
    start_elsewhere(tracking, getattr(tracking, stop))
    tracked(tracking, "write")
    stop_and_start(tracking, tracking.reboot)
    assert tracked(tracking, "finish") == dict.fromkeys(NAMES, LOST)
    tracked(tracking, "begin")


@pytest.mark.nightly
def test_a_lost_tracking_leaves_nothing_in_the_way_of_later_ones(tracking):
    """The CoW file of the lost tracking has the second of the two names, and is immutable."""
    tracked(tracking, "snapshot")
    start_elsewhere(tracking, tracking.cut)
    tracked(tracking, "write")
    assert tracking.run("lsattr /volumes/*/.tolvu1").stdout.count("i---") == len(NAMES)
    tracked(tracking, "begin")
    assert tracking.run("ls -A /volumes/ext4").stdout.split().count(".tolvu1") == 0
    tracked(tracking, "snapshot")


@pytest.mark.nightly
@pytest.mark.parametrize("stop", ["reboot", "cut"])
def test_ends_when_a_volume_had_its_own_table_while_it_was_mounted(tracking, stop):
    stop_and_start(tracking, tracking.cut)
    tracking.run("lvchange --refresh vg/ext4 && lvchange --refresh vg/xfs && udevadm settle")
    tracked(tracking, "write")
    stop_and_start(tracking, getattr(tracking, stop))
    assert tracked(tracking, "finish") == dict.fromkeys(NAMES, LOST)


@pytest.mark.nightly
def test_ends_when_the_power_failed_before_anybody_saw_that(tracking):
    """Simulates a power failure in the milliseconds before the driver notices the other table."""
    tracking.run("udevadm control --stop-exec-queue && "
                 "lvchange --noudevsync --refresh vg/ext4 && lvchange --noudevsync --refresh vg/xfs")
    tracked(tracking, "write")
    stop_and_start(tracking, tracking.cut)
    assert tracked(tracking, "finish") == dict.fromkeys(NAMES, LOST)


@pytest.mark.nightly
def test_no_layer_is_named_like_its_volume(tracking):
    stop_and_start(tracking, tracking.reboot)
    links = tracking.run("udevadm settle; find /dev/disk -type l -exec readlink -f {} +").stdout.split()
    listed = tracking.run("dmsetup", "info", "-c", "--noheadings", "--separator", " ",
                          "-o", "name,blkdevname")
    layers = {f"/dev/{device}" for name, device in map(str.split, listed.stdout.splitlines())
              if name.startswith("tolvubd-")}
    assert layers and not layers & set(links)
    assert tracking.run("readlink", "-f", "/dev/vg/ext4").stdout.strip() in links
