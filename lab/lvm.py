"""Logical volumes for the lab, on a machine of its own, of which a disk is used up.

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
PARTS = 4


def spare_disks():
    """The disks of this machine that are there to be used up, as who has started it says."""
    return [pathlib.Path(disk) for disk in os.environ.get("BEKD_DISKS", "").split()]


def answers(*command):
    """Whether a tool has done its work."""
    return subprocess.run([str(word) for word in command], capture_output=True, check=False,
                          timeout=SECONDS).returncode == 0


class VolumeGroup(Stay):
    """A volume group of all but the last of the parts of a disk, all of one size. The last one is for what has
    to be elsewhere."""

    def __init__(self, name="lab", disk=None, parts=PARTS):
        super().__init__()
        self.name = name
        self._disk = disk or spare_disks()[0]
        self._count = parts

    def open(self, lasting):
        clear(self._disk)
        sectors = int(run("blockdev", "--getsz", self._disk)) // self._count - 2048
        run("sfdisk", "--quiet", "--wipe", "always", self._disk,
            input="label: gpt\n" + f"size={sectors}\n" * self._count)
        run("udevadm", "settle")
        lasting.callback(clear, self._disk)
        self.parts = [pathlib.Path(f"{self._disk}{number}") for number in range(1, self._count + 1)]
        self.physical = self.parts[:-1]
        run("pvcreate", "--quiet", "-ff", "-y", *self.physical)
        run("vgcreate", "--quiet", "--physicalextentsize", f"{EXTENT}b", self.name, *self.physical)

    @property
    def spare(self):
        """The part that is no physical volume."""
        return self.parts[-1]

    def create(self, name, mebibytes, *options):
        """Makes a logical volume; returns its device."""
        run("lvcreate", "--quiet", "-y", "-n", name, "-L", f"{mebibytes}m", self.name, *options)
        return self.device(name)

    def device(self, name):
        return pathlib.Path("/dev", self.name, name)


def clear(disk):
    """Takes all devices of device-mapper away, and what LVM finds on the disk. A device goes when nobody has it
    open any more, such as udev."""
    wait_until(no_devices, SECONDS, "device-mapper without devices")
    for part in sorted(pathlib.Path("/dev").glob(f"{disk.name}[0-9]*")):
        run("wipefs", "--quiet", "--all", "--force", part)
    run("wipefs", "--quiet", "--all", "--force", disk)
    run("pvscan", "--cache")


def no_devices():
    subprocess.run(["dmsetup", "remove_all", "--force"], capture_output=True, check=False, timeout=SECONDS)
    return run("dmsetup", "ls").startswith("No devices")
