"""Logical volumes instead of partitions, for a machine of the lab; they use that machine's own kernel and
services.

If BEKD_VOLUMES is "lvm", a Site makes its volumes this way, in the volume group `lab`, which must exist
already.
"""
import dataclasses
import math
import os
import pathlib

from lab.commands import run
from lab.volumes import Disk

GROUP = "lab"
LAYERS_MEBIBYTES = 18 # room for the driver's layers on a small volume, in addition to the volume's size
EXT = ("ext2", "ext3", "ext4")


def are_volumes_logical():
    return os.environ.get("BEKD_VOLUMES") == "lvm"


class LogicalDisk(Disk):
    """A Disk whose volumes are logical volumes. Their device names are those that udisks uses."""

    def __init__(self, volumes, *arguments):
        super().__init__([in_whole_units(volume) for volume in volumes], *arguments)

    def open_medium(self, stack):
        """Does nothing: the volume group belongs to the machine."""

    def device_of(self, stack, number, volume):
        run("lvcreate", "--yes", "--wipesignatures", "y", "--name", volume.name,
            "--size", f"{math.ceil(volume.mebibytes) + LAYERS_MEBIBYTES}m", GROUP)
        stack.callback(run, "lvremove", "--yes", f"{GROUP}/{volume.name}")
        return str(pathlib.Path("/dev", GROUP, volume.name).resolve())


def in_whole_units(volume):
    """The volume with blocks of 4 KiB. A small ext4 has blocks of 1 KiB by default, and the driver can't map
    files of those."""
    if volume.file_system not in EXT or "-b" in volume.making:
        return volume
    return dataclasses.replace(volume, making=(*volume.making, "-b", "4096"))


def disk_of(volumes, token, directory):
    """A disk with these volumes; they are logical volumes if the environment says so."""
    return (LogicalDisk if are_volumes_logical() else Disk)(volumes, token, directory)
