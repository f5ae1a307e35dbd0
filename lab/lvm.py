"""Logical volumes for the lab, on a machine that has disks which may be overwritten.

    with VolumeGroup() as group:
        device = group.create("data", 96)

When the group is opened and closed, all device-mapper devices of that machine are removed.
"""
import os
import pathlib
import subprocess

from lab.commands import run
from lab.resources import Resource
from lab.services import wait_until

SECONDS = 60
EXTENT = 1 << 20


def spare_disks():
    """The disks of this machine that may be overwritten, as MACHINE_DISKS names them."""
    return [pathlib.Path(disk) for disk in os.environ.get("MACHINE_DISKS", "").split()]


class VolumeGroup(Resource):
    """A volume group of all spare disks but the last. That one is `spare`, for data that must be outside of
    the group."""

    def __init__(self, name="lab"):
        super().__init__()
        self.name = name
        *self.physical, self.spare = spare_disks()

    def open(self, stack):
        clear([*self.physical, self.spare])
        stack.callback(clear, [*self.physical, self.spare])
        run("vgcreate", "--quiet", "-y", "--physicalextentsize", f"{EXTENT}b", self.name, *self.physical)

    def create(self, name, mebibytes, *options):
        """Makes a logical volume; returns its device."""
        run("lvcreate", "--quiet", "-y", "-n", name, "-L", f"{mebibytes}m", self.name, *options)
        return self.device(name)

    def device(self, name):
        return pathlib.Path("/dev", self.name, name)


def clear(disks):
    """Removes all device-mapper devices, and everything that LVM finds on the disks. A device only goes away
    when no process, such as udev, has it open any more."""
    wait_until(no_devices, SECONDS, "device-mapper without devices")
    run("wipefs", "--quiet", "--all", "--force", *disks)
    run("pvscan", "--cache")


def no_devices():
    subprocess.run(["dmsetup", "remove_all", "--force"], capture_output=True, check=False, timeout=SECONDS)
    return run("dmsetup", "ls").startswith("No devices")
