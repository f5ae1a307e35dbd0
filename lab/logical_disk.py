"""Logical volumes in the place of partitions, in a machine of the lab, whose kernel and services they have.

BEKD_VOLUMES=lvm has a Site make its volumes so, in the group `lab`, which is there already.
"""
import dataclasses
import math
import os
import pathlib

from lab.commands import run
from lab.volumes import Disk

GROUP = "lab"
LAYERS_MEBIBYTES = 18 # what the driver's layers take of a small volume, so that the rest has its size
EXT = ("ext2", "ext3", "ext4")


def are_volumes_logical():
    return os.environ.get("BEKD_VOLUMES") == "lvm"


class LogicalDisk(Disk):
    """A Disk whose volumes are logical ones. They go by the names that udisks has for their devices."""

    def __init__(self, volumes, *arguments):
        super().__init__([in_whole_units(volume) for volume in volumes], *arguments)

    def open_medium(self, lasting):
        """The group is the machine's."""

    def device_of(self, lasting, number, volume):
        run("lvcreate", "--yes", "--wipesignatures", "y", "--name", volume.name,
            "--size", f"{math.ceil(volume.mebibytes) + LAYERS_MEBIBYTES}m", GROUP)
        lasting.callback(run, "lvremove", "--yes", f"{GROUP}/{volume.name}")
        return str(pathlib.Path("/dev", GROUP, volume.name).resolve())


def in_whole_units(volume):
    """A small ext4 has blocks of 1 KiB if nobody says otherwise, and the driver can't map files of those."""
    if volume.file_system not in EXT or "-b" in volume.making:
        return volume
    return dataclasses.replace(volume, making=(*volume.making, "-b", "4096"))


def disk_of(volumes, token, directory):
    """A disk with these volumes, logical ones if the environment says so."""
    return (LogicalDisk if are_volumes_logical() else Disk)(volumes, token, directory)
