"""Logical volumes for the lab, on a machine of its own: disks of it are used up.

    with VolumeGroup() as group:
        device = group.create("data", 96)

Whatever tests have left of device-mapper's devices on that machine is gone with the group.
"""
import os
import pathlib
import subprocess

from lab.commands import run
from lab.services import wait_until
from lab.stay import Stay

SECONDS = 60
EXTENT = 1 << 20


def spare_disks():
    """The disks of this machine that are there to be used up, as whoever has started it says."""
    return [pathlib.Path(disk) for disk in os.environ.get("MACHINE_DISKS", "").split()]


class VolumeGroup(Stay):
    """A volume group of all disks but the last, which is `spare`: for what has to be elsewhere."""

    def __init__(self, name="lab"):
        super().__init__()
        self.name = name
        *self.physical, self.spare = spare_disks()

    def open(self, lasting):
        clear([*self.physical, self.spare])
        lasting.callback(clear, [*self.physical, self.spare])
        run("vgcreate", "--quiet", "-y", "--physicalextentsize", f"{EXTENT}b", self.name, *self.physical)

    def create(self, name, mebibytes, *options):
        """Makes a logical volume; returns its device."""
        run("lvcreate", "--quiet", "-y", "-n", name, "-L", f"{mebibytes}m", self.name, *options)
        return self.device(name)

    def device(self, name):
        return pathlib.Path("/dev", self.name, name)


def clear(disks):
    """Takes all devices of device-mapper away, and what LVM finds on the disks. A device goes when nobody has
    it open any more, such as udev."""
    wait_until(no_devices, SECONDS, "device-mapper without devices")
    run("wipefs", "--quiet", "--all", "--force", *disks)
    run("pvscan", "--cache")


def no_devices():
    subprocess.run(["dmsetup", "remove_all", "--force"], capture_output=True, check=False, timeout=SECONDS)
    return run("dmsetup", "ls").startswith("No devices")
