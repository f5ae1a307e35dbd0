"""What administrators do to a logical volume while it is tracked, or while its snapshot is read: whatever it is,
the next record is complete and the snapshot shows its moment, or the driver says that it isn't so."""
import contextlib
import dataclasses
import subprocess
import time
from collections.abc import Callable

import pytest

from dm_site import Protected, SNAPSHOT, TRACKING, Volume, logical_volumes
from lab.commands import run
from lab.lvm import VolumeGroup
from tolvubd_site import call

MEBIBYTES = 128
HELD_SECONDS = 0.5
STATES = {"tracking": TRACKING, "snapshot": SNAPSHOT}


@pytest.fixture(scope="module")
def group():
    with VolumeGroup() as made:
        yield made


@dataclasses.dataclass(frozen=True)
class Verb:
    """`act(volume, group)` is what somebody does; it returns the volume's new device, if that has another name
    then. One that `may_fail` is refused by LVM or by the kernel."""

    name: str
    act: Callable
    may_fail: bool = False
    is_quick: bool = False


def lvm(*words):
    """A command of which the volume is the last word, or stands where {lv} does."""
    def act(volume, group):
        names = {"lv": f"{group.name}/{volume.device.name}", "vg": group.name, "mount": volume.mount_point,
                 "device": volume.device, "first": group.physical[0], "last": group.physical[-1]}
        run(*(word.format(**names) for word in words))
    return act


def rename(volume, group):
    run("lvrename", group.name, volume.device.name, "renamed")
    return group.device("renamed")


def rename_group(volume, group):
    run("vgrename", group.name, "other")
    group.name = "other"
    return group.device(volume.device.name)


def restore_metadata(volume, group):
    """As after a mistake, from the file that LVM has kept."""
    run("vgcfgbackup", group.name)
    run("lvchange", "--addtag", "mistake", f"{group.name}/{volume.device.name}")
    run("vgcfgrestore", group.name)
    run("vgchange", "--refresh", group.name)


def convert_to_thin(volume, group):
    run("lvcreate", "-y", "--type", "thin-pool", "-n", "pool", "-L", "32m", group.name)
    run("lvconvert", "-y", "--type", "thin", "--thinpool", f"{group.name}/pool",
        f"{group.name}/{volume.device.name}")


def freeze(volume, _group):
    """Somebody holds the file system, while the driver is asked for the next step."""
    run("fsfreeze", "--freeze", volume.mount_point)
    try:
        assert not call("transition_snapshot", 0, volume.other_cow, 24)
    finally:
        run("fsfreeze", "--unfreeze", volume.mount_point)


def suspend(*options):
    def act(volume, _group):
        run("dmsetup", "suspend", *options, volume.device)
        time.sleep(HELD_SECONDS)
        run("dmsetup", "resume", volume.device)
    return act


VERBS = (
    Verb("lvchange --refresh", lvm("lvchange", "--refresh", "{lv}"), is_quick=True),
    Verb("lvextend", lvm("lvextend", "-L", "+8m", "{lv}")),
    Verb("lvextend -r", lvm("lvextend", "-r", "-L", "+8m", "{lv}"), is_quick=True),
    Verb("lvreduce", lvm("lvreduce", "-f", "-y", "-L", "-1m", "{lv}"), may_fail=True),
    Verb("lvrename", rename, is_quick=True),
    Verb("lvcreate -s", lvm("lvcreate", "-s", "-n", "old", "-L", "16m", "{lv}"), is_quick=True),
    Verb("lvconvert --type raid1", lvm("lvconvert", "-y", "--type", "raid1", "-m1", "{lv}")),
    Verb("lvconvert --type thin", convert_to_thin),
    Verb("pvmove", lvm("pvmove", "-i", "1", "{first}", "{last}"), is_quick=True),
    Verb("pvmove --abort", lvm("pvmove", "--abort")),
    Verb("vgrename", rename_group),
    Verb("vgchange -ay", lvm("vgchange", "-ay", "{vg}")),
    Verb("vgchange --refresh", lvm("vgchange", "--refresh", "{vg}")),
    Verb("vgcfgrestore", restore_metadata),
    Verb("lvchange -an", lvm("lvchange", "-an", "{lv}"), may_fail=True),
    Verb("lvchange --addtag", lvm("lvchange", "--addtag", "mine", "{lv}")),
    Verb("pvscan --cache -aay", lvm("pvscan", "--cache", "-aay")),
    Verb("udevadm trigger", lvm("udevadm", "trigger", "--settle", "--action=change", "{device}")),
    Verb("fstrim", lvm("fstrim", "{mount}"), may_fail=True),
    Verb("fsfreeze", freeze, is_quick=True),
    Verb("dmsetup suspend", suspend()),
    Verb("dmsetup suspend --nolockfs", suspend("--nolockfs")),
    Verb("dmsetup suspend --noflush", suspend("--noflush", "--nolockfs")),
)


@pytest.fixture
def volume(group):
    with contextlib.ExitStack() as stack:
        stack.callback(remove_volumes, group)
        yield stack.enter_context(Volume("data", "ext4", MEBIBYTES * 2048,
                                         logical_volumes(group, group.physical[0])))


def remove_volumes(group):
    if group.name != "lab":
        run("vgrename", group.name, "lab")
        group.name = "lab"
    run("lvremove", "-ff", "-y", group.name)


@pytest.mark.parametrize("state", STATES)
@pytest.mark.parametrize("verb", VERBS, ids=lambda verb: verb.name)
def test_verb(group, volume, verb, state, record_property):
    protected = Protected(volume)
    with protected:
        if STATES[state] == TRACKING:
            protected.track()
        try:
            volume.device = verb.act(volume, group) or volume.device
            done = "done"
        except OSError as error:
            assert verb.may_fail, error
            done = "refused"
        protected.writer.wait_for_writes()
        outcome = protected.outcome()
        record_property("verb", f"{verb.name} | {state} | {done} | {outcome}")
        print(f"\n{verb.name} | {state} | {done} | {outcome}")
        protected.end()
