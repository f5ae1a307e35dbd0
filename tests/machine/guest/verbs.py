"""Actions of administrators on a logical volume while it is tracked, or while its snapshot is read. After any
of them, the next record must be complete and the snapshot must show its moment, or the driver must report an
error."""
import contextlib
import dataclasses
import time
from collections.abc import Callable

from dm_site import Protected, logical_volumes
from lab.commands import run
from tolvubd_site import Volume, call, layers

MEBIBYTES = 64
HELD_SECONDS = 0.5
STATES = ("tracking", "snapshot")


@dataclasses.dataclass(frozen=True)
class Verb:
    """`act(volume, group)` performs the action; it returns the volume's new device if that has another name
    then. If it `may_fail`, LVM or the kernel may refuse it. `every_run_state` is the state in which every run
    tries it, not only the nightly one."""

    name: str
    act: Callable
    may_fail: bool = False
    every_run_state: str = ""


def lvm(*words):
    """An LVM command; the words may contain {lv} and other names."""
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
    """Restores the metadata from LVM's backup file, as after a mistake."""
    run("vgcfgbackup", group.name)
    run("lvchange", "--addtag", "mistake", f"{group.name}/{volume.device.name}")
    run("vgcfgrestore", "-y", group.name)
    run("vgchange", "--refresh", group.name)


def convert_to_thin(volume, group):
    run("lvcreate", "-y", "--type", "thin-pool", "-n", "pool", "-L", "32m", group.name)
    run("lvconvert", "-y", "--type", "thin", "--thinpool", f"{group.name}/pool",
        f"{group.name}/{volume.device.name}")


def freeze(volume, _group):
    """Freezes the file system while the driver is asked for the next step."""
    run("fsfreeze", "--freeze", volume.mount_point)
    try:
        assert not call("transition_snapshot", 0, volume.other_cow, 12)
    finally:
        run("fsfreeze", "--unfreeze", volume.mount_point)


def suspend(*options):
    def act(volume, _group):
        run("dmsetup", "suspend", *options, volume.device)
        time.sleep(HELD_SECONDS)
        run("dmsetup", "resume", volume.device)
    return act


VERBS = (
    Verb("lvchange --refresh", lvm("lvchange", "--refresh", "{lv}"), every_run_state="snapshot"),
    Verb("lvextend", lvm("lvextend", "-L", "+8m", "{lv}")),
    Verb("lvextend -r", lvm("lvextend", "-r", "-L", "+8m", "{lv}"), every_run_state="tracking"),
    Verb("lvreduce", lvm("lvreduce", "-f", "-y", "-L", "-1m", "{lv}"), may_fail=True),
    Verb("lvrename", rename),
    Verb("lvcreate -s", lvm("lvcreate", "-s", "-n", "old", "-L", "16m", "{lv}"), every_run_state="snapshot"),
    Verb("lvconvert --type raid1", lvm("lvconvert", "-y", "--type", "raid1", "-m1", "{lv}")),
    Verb("lvconvert --type thin", convert_to_thin),
    Verb("pvmove", lvm("pvmove", "-i", "1", "{first}", "{last}"), every_run_state="tracking"),
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
    Verb("fsfreeze", freeze, every_run_state="tracking"),
    Verb("dmsetup suspend", suspend()),
    Verb("dmsetup suspend --nolockfs", suspend("--nolockfs")),
    Verb("dmsetup suspend --noflush", suspend("--noflush", "--nolockfs")),
)


def check_verb(group, verb, state):
    """The outcome of an action in a state, in words; and how many units the record names that have changed,
    and how many that haven't."""
    with contextlib.ExitStack() as stack:
        stack.callback(remove_volumes, group)
        volume = stack.enter_context(Volume("data", "ext4", MEBIBYTES * 2048,
                                            logical_volumes(group, group.physical[0], slack=1)))
        protected = stack.enter_context(Protected(volume))
        assert layers()
        if state == "tracking":
            protected.track()
        done = act(verb, volume, group)
        protected.writer.wait_for_writes()
        outcome = protected.outcome()
        protected.end()
    return f"{verb.name} | {state} | {done} | {outcome} | {protected.changed} | {protected.untouched}"


def act(verb, volume, group):
    try:
        volume.device = verb.act(volume, group) or volume.device
        return "done"
    except OSError as error:
        assert verb.may_fail, error
        return "refused"


def remove_volumes(group):
    if group.name != "lab":
        run("vgrename", group.name, "lab")
        group.name = "lab"
    run("lvremove", "-ff", "-y", group.name)
