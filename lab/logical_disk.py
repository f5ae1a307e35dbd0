"""Logical volumes in the place of partitions, in a machine of the lab, whose device-mapper and services they have.

BEKD_VOLUMES=lvm has a Site make its volumes so, in the group `lab`, which is there already.
"""
import math
import os
import pathlib

from lab.commands import run
from lab.volumes import Disk

GROUP = "lab"


def are_volumes_logical():
    return os.environ.get("BEKD_VOLUMES") == "lvm"


class LogicalDisk(Disk):
    """A Disk whose volumes are logical ones. They go by the names that udisks has for their devices."""

    def open_medium(self, lasting):
        """The group is the machine's."""

    def device_of(self, lasting, number, volume):
        run("lvcreate", "--yes", "--wipesignatures", "y", "--name", volume.name,
            "--size", f"{math.ceil(volume.mebibytes)}m", GROUP)
        lasting.callback(run, "lvremove", "--yes", f"{GROUP}/{volume.name}")
        return str(pathlib.Path("/dev", GROUP, volume.name).resolve())


def disk_of(volumes, token, directory):
    """A disk with these volumes, logical ones if the environment says so."""
    return (LogicalDisk if are_volumes_logical() else Disk)(volumes, token, directory)
