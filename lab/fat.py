"""FAT32. Few server kernels can mount it, so a FUSE driver does it here."""
import contextlib
import dataclasses
import functools
import pathlib
import re
import struct

from lab import oracles
from lab.commands import run
from lab.fuse_mounts import FuseMount
from lab.kind import Kind, Sample, Seed
from lab.used_blocks import Truth

BOOT_SECTOR = 512
ENTRY = 4    # bytes of a FAT entry, one for each cluster
RESERVED = 2 # the first entries belong to no cluster


@contextlib.contextmanager
def mounted(device, mount_point, options, _file_system):
    """Mounts the volume; it is writable by default, as with a kernel driver. The FUSE driver leaks the
    clusters of a file that is truncated while it is open. So a file that is written anew keeps its length,
    and the old content after the new."""
    mount_point = pathlib.Path(mount_point)
    mount_point.mkdir(parents=True, exist_ok=True)
    own = f"blkdev,big_writes,atomic_o_trunc,fsname={device}"
    options = f"{own},{'rw+' if options == 'defaults' else options}"
    command = ("fusefat", "-f", "-o", options, str(device), str(mount_point))
    with FuseMount(command, mount_point):
        yield mount_point


@dataclasses.dataclass
class Geometry:
    """The geometry from the boot sector, in bytes except for the number of clusters."""

    sector: int
    cluster: int
    fat: int       # offset of the first FAT
    fat_size: int
    data: int      # offset of the first cluster
    clusters: int
    size: int      # of the file system

    @classmethod
    def of(cls, volume):
        with open(volume, "rb") as file:
            head = file.read(BOOT_SECTOR)
        sector, sectors_per_cluster, reserved, fats = struct.unpack_from("<HBHB", head, 11)
        total, fat_sectors = struct.unpack_from("<II", head, 32)
        total = struct.unpack_from("<H", head, 19)[0] or total
        cluster = sector * sectors_per_cluster
        if cluster == 0:
            raise OSError(f"{volume}: no FAT, as its clusters have no size")
        data = (reserved + fats * fat_sectors) * sector
        return cls(sector, cluster, reserved * sector, fat_sectors * sector, data,
                   (total * sector - data) // cluster, total * sector)

    @property
    def blocks(self):
        """The number of blocks. A block is as large as a cluster, and block 0 begins at byte 0 of the
        volume."""
        return -(-self.size // self.cluster)

    @property
    def end(self):
        return self.data + self.clusters * self.cluster


def truth(volume):
    return truth_by(functools.partial(oracles.partclone, "vfat"), volume)


def truth_by(oracle, volume):
    """The truth from an oracle that reports used sectors. A block is used if any byte of it is used: it may
    overlap two clusters, or the FATs and a cluster. The space after the last cluster is too short for another
    one and counts as unused."""
    geometry = Geometry.of(volume)
    used = set()
    for begin, length in oracle(volume, geometry.sector).used_extents():
        end = min(begin + length, geometry.end)
        if begin < end:
            used.update(range(begin // geometry.cluster, -(-end // geometry.cluster)))
    free = [(block, 1) for block in range(geometry.blocks) if block not in used]
    return Truth(geometry.blocks, geometry.cluster, free)


def unknown_to_driver(_volume):
    return []


def may_be_reported_used(volume):
    """The last block, if the FAT has no entry for the cluster that would begin in it."""
    geometry = Geometry.of(volume)
    entries = geometry.fat_size // ENTRY
    is_without_entry = entries <= geometry.clusters + 2 * RESERVED
    return {geometry.blocks - 1} if is_without_entry else set()


def structures(device, _root):
    """The boot sector, the first FAT, and the first cluster, which holds the root directory."""
    geometry = Geometry.of(device)
    return {0: "Logical sector size", geometry.fat: "FATs differ", geometry.data: "bad entries"}


def extents(device, _root, name):
    """The extents of a file. The FUSE driver can't report them, so mshowfat does."""
    geometry = Geometry.of(device)
    clusters = re.findall(r"[<,] ?(\d+)(?:-(\d+))?", run("mshowfat", "-i", device, f"::/{name}"))
    return [(geometry.data + (int(first) - RESERVED) * geometry.cluster,
             (int(last or first) - int(first) + 1) * geometry.cluster) for first, last in clusters]


def regions(image):
    geometry = Geometry.of(image)
    return [(0, BOOT_SECTOR), (geometry.fat, geometry.fat_size)]


USUAL = (
    Sample("fat 1K", 90, "vfat", ("-s", "2")),
)

KIND = Kind(
    name="fat",
    makers={"vfat": ("mkfs.fat", "-F", "32")},
    label_option="-n",
    mebibytes=90, # with fewer clusters than 65,525 some tools take it for FAT16
    mount=mounted,
    can_freeze=False, # FIFREEZE doesn't work on FUSE file systems
    read_only_options="ro",
    writable_options="rw+",
    quiet_options="rw+",
    check=("fsck.fat", "-n"),
    needs_replay=True, # a mounted volume is marked dirty until it is unmounted
    truth=truth,
    unknown_to_driver=unknown_to_driver,
    may_be_reported_used=may_be_reported_used,
    structures=structures,
    usual=USUAL,
    samples=(
        *USUAL,
        Sample("fat 512", 40, "vfat", ("-s", "1")),
        Sample("fat 1K straddling", 90, "vfat", ("-s", "2", "-a", "-R", "33")),
        Sample("fat 4K", 300, "vfat", ("-s", "8")),
        Sample("fat 4K straddling", 300, "vfat", ("-s", "8", "-a", "-R", "37")),
        Sample("fat 4K straddling, one FAT", 300, "vfat", ("-s", "8", "-a", "-R", "35", "-f", "1")),
        Sample("fat 4K sectors of 4096", 300, "vfat", ("-S", "4096", "-s", "1")),
        Sample("fat 8K sectors of 4096 straddling", 600, "vfat", ("-S", "4096", "-s", "2", "-a", "-R", "9")),
        Sample("fat 32K straddling", 2100, "vfat", ("-s", "64", "-a", "-R", "33")),
    ),
    regions=regions,
    seeds=(
        Seed("fat", "vfat", 90, ("-s", "2")),
        Seed("fat_straddling", "vfat", 90, ("-s", "2", "-a", "-R", "33")),
        Seed("fat_sectors_4k", "vfat", 300, ("-S", "4096", "-s", "1"), sector_exponent=3),
        Seed("fat_64k", "vfat", 200, ("-s", "128"), is_mounted=False),
    ),
    is_plain=True,
    extents=extents,
)
