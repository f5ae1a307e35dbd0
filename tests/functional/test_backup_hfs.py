"""Whole backups of HFS+ volumes through the daemon: of the used blocks; of all blocks if the used ones can't
be determined; and none of an unknown volume. A stand-in is mounted instead of the volume, so its files are
read from the image."""
import os
import re

import pytest

from hfs_files import files_of
from lab.backups import capture_of, size_of
from lab.filesystems import truth_of
from lab.hfs_maker import content_of, path_of
from lab.hfs_mount import HfsMount
from lab.images import compare_used
from lab.poison import is_poison
from lab.targets import Target
from lab.volumes import Volume
from lab.zephane import ZephaneServer

MIB = 1 << 20
MEBIBYTES = 160 # with room for a CoW file
FILES = 30
CHANGED = 7
MANY_PIECES = ("--block-size", "512", "--fragments", "30", "--depth", "2")


def hfs_volume(name, *options):
    making = ("--volume-id", name.encode().hex()[:16], "--files", str(FILES), *options)
    return Volume(name, "hfsplus", mebibytes=MEBIBYTES, making=making)


VOLUMES = (
    hfs_volume("usual"),
    hfs_volume("sent"),
    hfs_volume("pieces", *MANY_PIECES),
    hfs_volume("large-blocks", "--block-size", "65536"),
    hfs_volume("eight-pieces", "--block-size", "1024", "--fragments", "8"),
    hfs_volume("in-use", "--journaled", "--unclean"),
    hfs_volume("not-known", "--usual-header-only"),
)


@pytest.fixture
def protection(request, protect, volumes):
    """The protection of the volume that the test names."""
    with HfsMount(volumes[request.param].device, f"/mnt/{request.param}"):
        yield protect(request.param)


def of(*names):
    return pytest.mark.parametrize("protection", names, indirect=True)


def run_to_end(protection, **kind):
    backup = protection.run(**kind)
    assert backup.state == "finished", backup.log
    return backup


def parts(protection):
    """The name, the partition and the image of the one volume."""
    (name, partition), = protection.partitions.items()
    return name, partition, protection.images[name]


def check_image(protection, files):
    name, _, image = parts(protection)
    capture = capture_of(protection.partitions[name])
    assert compare_used(capture, image.path, "hfsplus", excluded=()).check().blocks > 0
    assert files_of(image.path) == files


def contents():
    return {path_of(number): content_of(number) for number in range(FILES)}


def change_file(partition):
    """Overwrites the beginning of a file directly on the device. Returns the new contents of the files."""
    old = content_of(CHANGED)
    with open(partition.device, "r+b") as device:
        found = re.search(re.escape(old[:512]), device.read())
        device.seek(found.start())
        device.write(bytes(512))
        device.flush()
        os.fsync(device.fileno())
    return contents() | {path_of(CHANGED): bytes(512) + old[512:]}


@pytest.mark.parametrize(("protection", "target"), [
    ("usual", Target), ("pieces", Target), ("large-blocks", Target), ("sent", ZephaneServer)], indirect=True)
def test_used_blocks_are_copied_and_merged(protection):
    name, partition, image = parts(protection)
    truth = truth_of(partition.device, "hfsplus")
    used = sum(length for _, length in truth.used_extents())
    backup = run_to_end(protection, full=True)
    assert backup.bytes(name) == used < 30 * MIB
    check_image(protection, contents())
    first, count = truth.free_ranges[-1]
    with open(image.path, "rb") as file:
        assert is_poison(os.pread(file.fileno(), count * truth.block_size, first * truth.block_size))
    files = change_file(partition)
    before = image.writes()
    backup = run_to_end(protection, merge=True)
    assert backup.type(name) == "differential" and backup.bytes(name) == used
    assert 0 < (image.writes() - before).bytes < used
    check_image(protection, files)


@of("eight-pieces", "in-use")
def test_all_blocks_are_copied_where_the_map_cannot_be_read(protection):
    name, partition, _ = parts(protection)
    backup = run_to_end(protection, full=True)
    assert backup.bytes(name) == size_of(partition)
    check_image(protection, contents())


@of("not-known")
def test_volume_with_its_header_as_usual_fails_and_is_named(protection):
    name, partition, _ = parts(protection)
    backup = protection.run(full=True)
    assert backup.state != "finished"
    assert (f"Volume {partition.uuid} (/mnt/{name}) can't be copied: its HFS+ header is at byte 1024, and "
            "HFS+ is known by one at byte 0 only [failure:file-system-unsupported]\n") in backup.log
    assert (f"File system not recognized for {partition.uuid} [failure:file-system-unsupported]\n"
            in backup.log)
