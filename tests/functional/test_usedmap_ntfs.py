"""The used clusters that the agent finds on NTFS with structures in unusual places, and volumes that it
refuses."""
import functools
import json
import os
import random
import subprocess

import pytest

from lab import filesystems, oracles
from lab.commands import run
from lab.images import tree_hashes
from lab.loops import attached
from lab.ntfs_scatter import list_attributes, scatter
from lab.ntfs_volume import ATTRIBUTE_LIST, BITMAP, DATA, MFT, NtfsVolume
from lab.volume_images import age, fill, make_image
from used_maps import TOOL, agreed, check_rebuilt, refused

COMPRESSED = (0x800).to_bytes(4, "big")
ATTRIBUTES = "system.ntfs_attrib_be"
FAILED = "A logical error occurred while attempting to parse the NTFS bitmap, err:"
SECTORS_OF_4K = ("--sector-size", "4096")


def make(directory, mebibytes, cluster, *options):
    return make_image(directory / "image", mebibytes, "ntfs", "--cluster-size", str(cluster), *options)


def use(image, *steps, options="rw"):
    """Mounts an image and calls each step with the mount point; returns the resulting tree."""
    with attached(image) as device, \
            filesystems.mounted("ntfs", device, image.parent / "mnt", options) as root:
        for step in steps:
            step(root)
        return tree_hashes(root)


def aged(root):
    age(root, 300)


def data_runs(image, number):
    with open(image, "rb") as file:
        return NtfsVolume(file).record(number).attribute(DATA).runs


def check_whole(image, tree, *options):
    check_rebuilt(agreed(image, "ntfs", *options), image.with_name("rebuilt"), "ntfs", tree)


def map_of(image, *options):
    """The used ranges in clusters, and the number of clusters in the map."""
    found = json.loads(run(TOOL, "--json", *options, image))
    return found["ranges"], found["blocks"]


def test_map_that_takes_several_fetches(directory):
    """The second fetch begins within the first run. After it, no more of the map is read."""
    image = make(directory, 4200, 512)
    in_one = map_of(image)
    assert in_one[1] > 8 << 20
    assert map_of(image, "--buffer", "1") == in_one
    scatter(image, BITMAP, 8)
    truth = filesystems.truth_of(image, "ntfs")
    ranges = [(at // 512, length // 512) for at, length in truth.used_extents()]
    backup_of_boot_sector = (truth.blocks, 1) # after the last cluster that is counted
    assert [tuple(found) for found in map_of(image)[0]] == [*ranges, backup_of_boot_sector]
    assert "NTFS: The bitmap is in pieces, and can't be read on from cluster 8388608" in \
        refused(image, "--buffer", "1")


def check_accounted(complaint, image, _file_system):
    """Checks that each cluster is accounted for, though the check complains about another size of the
    volume."""
    done = subprocess.run(["ntfsresize", "--info", "--force", "--no-progress-bar", image], check=False,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    assert "Space in use" in done.stdout and "accounting failed" not in done.stdout
    assert done.stdout.splitlines()[-1] == f"ERROR: {complaint}"


@pytest.mark.parametrize("count", [2, 8, 40])
@pytest.mark.parametrize("cluster, mebibytes", [(512, 90), (1024, 330)])
def test_bitmap_of_many_runs(cluster, mebibytes, count, directory):
    image = make(directory, mebibytes, cluster)
    tree = use(image, aged)
    scatter(image, BITMAP, count)
    assert len(data_runs(image, BITMAP)) == count
    check_whole(image, tree)


@pytest.mark.parametrize("cluster, runs", [(512, 30), (4096, 8), (65536, 2)])
def test_fragmented_table_of_files(cluster, runs, directory):
    """The bitmap's record is after the first run, unless a cluster holds more than that."""
    image = make(directory, 200, cluster)
    tree = use(image, aged)
    scatter(image, MFT, runs)
    assert len(data_runs(image, MFT)) == runs + 1
    check_whole(image, tree)
    use(image, functools.partial(age, operations=100, seed=2))
    agreed(image, "ntfs")


def test_fragmented_table_and_bitmap(directory):
    image = make(directory, 90, 512)
    tree = use(image, aged)
    scatter(image, MFT, 9)
    scatter(image, BITMAP, 9)
    check_whole(image, tree)


@pytest.mark.parametrize("count", [1, 8])
def test_bitmap_behind_an_attribute_list(count, directory):
    """blkls can't read such a volume."""
    image = make(directory, 90, 512)
    tree = use(image, aged)
    scatter(image, BITMAP, count)
    list_attributes(image, BITMAP)
    with open(image, "rb") as file:
        record = NtfsVolume(file).record(BITMAP)
    assert record.attribute(ATTRIBUTE_LIST) and not record.attribute(DATA)
    found = agreed(image, "ntfs", by=[functools.partial(oracles.partclone, "ntfs")])
    check_rebuilt(found, directory / "rebuilt", "ntfs", tree,
                  functools.partial(check_accounted, "Highly fragmented $Bitmap isn't supported yet."))


@pytest.mark.parametrize("cluster, mebibytes", [(4096, 90), (65536, 90), (524288, 400)])
def test_records_of_4_kib(cluster, mebibytes, directory):
    """The records are as large as the sectors, which are those of the disk."""
    image = make(directory, mebibytes, cluster, *SECTORS_OF_4K)
    tree = use(image, aged)
    check_whole(image, tree, *SECTORS_OF_4K)


def test_volume_for_other_sectors_than_its_disk_has_is_refused(directory):
    image = make(directory, 90, 4096, *SECTORS_OF_4K)
    agreed(image, "ntfs", *SECTORS_OF_4K)
    assert "sectors of 4096 bytes and its device of 512" in refused(image)


def write_holes(root):
    """Makes a large file, most of which is never written."""
    with open(root / "sparse", "wb") as file:
        for place in range(0, 60 << 20, 7 << 20):
            os.pwrite(file.fileno(), random.Random(place).randbytes(50_000), place)
    assert (root / "sparse").stat().st_blocks * 512 < 2 << 20


def write_compressed(root):
    (root / "compressed").mkdir()
    os.setxattr(root / "compressed", ATTRIBUTES, COMPRESSED)
    path = root / "compressed" / "text"
    path.write_bytes(b"".join(b"line %d of a text\n" % number for number in range(200_000)))
    assert path.stat().st_blocks * 512 < path.stat().st_size // 2


def test_sparse_and_compressed_files(directory):
    image = make(directory, 90, 4096)
    tree = use(image, aged, write_holes, write_compressed, options="compression")
    check_whole(image, tree)


def test_full_volume(directory):
    image = make(directory, 24, 4096)
    tree = use(image, functools.partial(age, operations=60), fill)
    found = agreed(image, "ntfs")
    assert not found.truth.free
    check_rebuilt(found, directory / "rebuilt", "ntfs", tree,
                  functools.partial(check_accounted, "Volume is full. To shrink it, delete unused files."))


@pytest.mark.parametrize("cluster", [131072, 1 << 20, 2 << 20])
def test_clusters_of_more_than_128_sectors_are_refused(cluster, directory):
    """Their number of sectors is encoded as an exponent, which isn't a power of two itself."""
    image = make(directory, 512, cluster)
    assert filesystems.truth_of(image, "ntfs").block_size == cluster
    assert f"{FAILED} -186" in refused(image)


def overwrite(image, offset, content):
    with open(image, "r+b") as file:
        file.seek(offset)
        file.write(content)


def test_damaged_record_of_the_bitmap_is_refused(directory):
    image = make(directory, 24, 4096)
    agreed(image, "ntfs")
    with open(image, "rb") as file:
        begin = NtfsVolume(file).places_of(BITMAP)[0][0]
    overwrite(image, begin + 510, b"xx")
    assert f"{FAILED} -226" in refused(image)


def test_record_in_two_pieces_is_refused(directory):
    image = make(directory, 24, 512)
    scatter(image, MFT, 10)
    with open(image, "rb") as file:
        assert len(NtfsVolume(file).places_of(BITMAP)) == 2
    assert filesystems.truth_of(image, "ntfs").free
    assert "NTFS: A file record is in two pieces." in refused(image)


def test_clusters_of_three_sectors_are_refused(directory):
    image = make(directory, 24, 4096)
    overwrite(image, 13, b"\x03")
    assert f"{FAILED} -186" in refused(image)
