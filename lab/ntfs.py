"""NTFS, with the tools of ntfs-3g. The driver is a FUSE process."""
import contextlib
import functools
import os
import pathlib
import re
import subprocess
import tempfile

from lab.commands import SECONDS, run
from lab.fuse_mounts import FuseMount
from lab.kind import Kind, Sample, Seed
from lab.ntfs_scatter import list_attributes, scatter
from lab.ntfs_volume import ATTRIBUTE_LIST, BITMAP, DATA, MFT, NtfsVolume, records_of_list
from lab.used_blocks import Truth

BOOT_SECTOR = 512


@contextlib.contextmanager
def mounted(device, mount_point, options, _file_system):
    """Mounts the volume. It keeps owners and modes, and gets writes of more than a page at a time."""
    mount_point = pathlib.Path(mount_point)
    mount_point.mkdir(parents=True, exist_ok=True)
    options = f"no_detach,permissions,big_writes,{options}"
    with FuseMount(("ntfs-3g", str(device), str(mount_point), "-o", options), mount_point):
        yield mount_point


@contextlib.contextmanager
def unlocked(volume):
    """Yields a path to a device or an image for the tools. The FUSE process of a mounted volume holds a lock
    on its device's node, and the tools respect that lock; a second node of the device isn't locked."""
    path = pathlib.Path(volume)
    if not path.is_block_device():
        yield path
        return
    with tempfile.TemporaryDirectory(prefix="node-") as directory:
        node = pathlib.Path(directory) / path.name
        os.mknod(node, path.stat().st_mode, path.stat().st_rdev)
        yield node


def truth(volume):
    with unlocked(volume) as path:
        facts = run("ntfsinfo", "--force", "--mft", path)
        bitmap = subprocess.run(["ntfscat", "--force", path, "$Bitmap"], capture_output=True, check=True,
                                timeout=SECONDS).stdout
    clusters = number(facts, "Volume Size in Clusters")
    bits = f"{int.from_bytes(bitmap, 'little'):0{8 * len(bitmap)}b}"[::-1][:clusters]
    free = [(found.start(), len(found[0])) for found in re.finditer("0+", bits)]
    return Truth(clusters, number(facts, "Cluster Size"), free)


def number(text, name):
    """A number from the output of ntfsinfo."""
    return int(re.search(rf"^\s*{name}: (\d+)", text, re.MULTILINE)[1])


def unknown_to_driver(_volume):
    return []


def may_be_reported_used(_volume):
    return set()


def structures(device, _root):
    """The boot sector, the master file table and the cluster bitmap."""
    with open(device, "rb") as file:
        volume = NtfsVolume(file)
        table, bitmap = (volume.record(number).attribute(DATA).runs[0][0] * volume.cluster_size
                         for number in (MFT, BITMAP))
    return {0: "NTFS signature is missing", table: "Record 0 has no FILE magic",
            bitmap: "Cluster accounting failed"}


def regions(image):
    with open(image, "rb") as file:
        volume = NtfsVolume(file)
        yield 0, BOOT_SECTOR
        yield from volume.places_of(MFT)
        yield from volume.places_of(BITMAP)
        record = volume.record(BITMAP)
        listed = record.attribute(ATTRIBUTE_LIST)
        records = list(records_of_list(listed.value)) if listed else []
        for extension in records:
            yield from volume.places_of(extension)
        data = record.attribute(DATA) or volume.record(records[0]).attribute(DATA)
        for first, count in data.runs:
            yield first * volume.cluster_size, count * volume.cluster_size


USUAL = (
    Sample("ntfs 4K", 120, "ntfs", ("--cluster-size", "4096")),
)

KIND = Kind(
    name="ntfs",
    makers={"ntfs": ("mkfs.ntfs", "--quick", "--quiet", "--force")},
    label_option="--label",
    mebibytes=64,
    mount=mounted,
    can_freeze=False, # FIFREEZE is not for file systems in user space
    read_only_options="ro",
    writable_options="rw",
    quiet_options="noatime",
    check=("ntfsresize", "--info", "--force", "--no-progress-bar"),
    needs_replay=False,
    truth=truth,
    unknown_to_driver=unknown_to_driver,
    may_be_reported_used=may_be_reported_used,
    structures=structures,
    usual=USUAL,
    samples=(
        *USUAL,
        Sample("ntfs 512", 24, "ntfs", ("--cluster-size", "512")),
        Sample("ntfs 1K", 48, "ntfs", ("--cluster-size", "1024")),
        Sample("ntfs 2K", 64, "ntfs", ("--cluster-size", "2048")),
        Sample("ntfs 8K", 90, "ntfs", ("--cluster-size", "8192")),
        Sample("ntfs 16K", 90, "ntfs", ("--cluster-size", "16384")),
        Sample("ntfs 32K", 130, "ntfs", ("--cluster-size", "32768")),
        Sample("ntfs 64K", 190, "ntfs", ("--cluster-size", "65536")),
    ),
    regions=regions,
    seeds=(
        Seed("ntfs", "ntfs", 20, ("--cluster-size", "4096")),
        Seed("ntfs_512", "ntfs", 10, ("--cluster-size", "512")),
        Seed("ntfs_64k", "ntfs", 40, ("--cluster-size", "65536")),
        Seed("ntfs_sectors_4k", "ntfs", 20, ("--sector-size", "4096", "--cluster-size", "4096"),
             sector_exponent=3),
        Seed("ntfs_scattered", "ntfs", 10, ("--cluster-size", "512"),
             steps=(functools.partial(scatter, number=BITMAP, count=3),
                    functools.partial(scatter, number=MFT, count=9))),
        Seed("ntfs_listed", "ntfs", 20, steps=(functools.partial(list_attributes, number=BITMAP),)),
    ),
    map_exceeds_file_system=True, # the map has whole clusters
    has_file_extents=False,
)
