"""The used blocks that the parsers find, compared with those of the file systems' own tools, block by block.

Each test adds a line to a matrix, which is written to usedmap-matrix.txt beside the programs.
"""
import json
import os
import shutil
import subprocess

import pytest

from lab import filesystems, xfs
from lab.commands import run
from lab.filesystems import kind_of
from lab.images import tree_hashes
from lab.volume_images import age, fill, fragment_free_space, frozen, make_image, mounted
from used_maps import BUILD, TOOL, Comparison, refused


@pytest.fixture(scope="module")
def matrix():
    lines = []
    yield lines
    text = [f"{'file system':58} {'blocks':>9} {'used':>9} {'free but used':>13} {'used but free':>13}"]
    text += [f"{name:58} {blocks:9} {used:9} {lost:13} {kept:13}" for name, blocks, used, lost, kept in lines]
    (BUILD / "usedmap-matrix.txt").write_text("\n".join(text) + "\n")
    print("\n" + "\n".join(text))


def unexplained(volume, file_system, matrix, name, *options):
    return Comparison(volume, file_system, *options).note(matrix, name).unexplained


SAMPLES = {sample.name: sample for kind in filesystems.KINDS for sample in kind.samples}


def test_no_sample_is_left_out():
    """Two samples of the same name would be one test."""
    assert len(SAMPLES) == sum(len(kind.samples) for kind in filesystems.KINDS)
    names = {kind_of(sample.file_system).name for sample in SAMPLES.values()}
    assert names == {kind.name for kind in filesystems.KINDS}


def make_sample(path, sample):
    return make_image(path, sample.mebibytes, sample.file_system, *sample.options)


@pytest.mark.parametrize("name", SAMPLES)
def test_map(name, tmp_path, matrix):
    sample = SAMPLES[name]
    image = make_sample(tmp_path / "image", sample)
    assert not unexplained(image, sample.file_system, matrix, name + ", new")
    if kind_of(sample.file_system).mount:
        check_aged(image, sample, tmp_path / "mnt", matrix)


def check_aged(image, sample, mount_point, matrix):
    with mounted(image, sample.file_system, mount_point) as (device, directory):
        age(directory, 300, is_plain=kind_of(sample.file_system).is_plain)
        if kind_of(sample.file_system).can_freeze:
            with frozen(directory):
                assert not unexplained(device, sample.file_system, matrix, sample.name + ", aged and frozen")
    assert not unexplained(image, sample.file_system, matrix, sample.name + ", aged and clean")


def test_ext_full(tmp_path, matrix):
    for name in "ext2 1K", "ext4 4K":
        sample = SAMPLES[name]
        image = make_image(tmp_path / "image", 64, sample.file_system, *sample.options, "-m", "0")
        with mounted(image, sample.file_system, tmp_path / "mnt") as (_, directory):
            age(directory, 100)
            fill(directory)
        found = Comparison(image, "ext4")
        assert not unexplained(image, "ext4", matrix, name + ", full")
        assert len(found.truth.free) < found.truth.blocks // 40


def test_ext_resized(tmp_path, matrix):
    image = make_image(tmp_path / "image", 200, "ext4", "-b", "1024")
    with mounted(image, "ext4", tmp_path / "mnt") as (_, directory):
        age(directory, 200)
    run("e2fsck", "-fp", image)
    run("resize2fs", image, "90M")
    assert not unexplained(image, "ext4", matrix, "ext4 1K, shrunk from 200 MiB to 90 MiB")
    run("resize2fs", image, "199M")
    assert not unexplained(image, "ext4", matrix, "ext4 1K, grown from 90 MiB to 199 MiB")
    with mounted(image, "ext4", tmp_path / "mnt") as (device, directory):
        age(directory, 200, seed=2)
        with frozen(directory):
            assert not unexplained(device, "ext4", matrix, "ext4 1K, shrunk, grown, aged again and frozen")


def test_ext_maps_of_clusters_are_refused(tmp_path):
    image = make_image(tmp_path / "image", 90, "ext4", "-O", "bigalloc")
    assert "EXT bitmaps of clusters are not supported" in refused(image)


def test_ext_descriptors_in_meta_groups_are_refused(tmp_path):
    image = make_image(tmp_path / "image", 300, "ext4", "-b", "1024", "-O",
                       "meta_bg,^resize_inode")
    assert "EXT descriptors in meta groups are not supported" in refused(image)


def test_ext_features_that_kernels_may_lack(tmp_path, matrix):
    """The tool that makes the volume also fills it."""
    (tmp_path / "source").mkdir()
    age(tmp_path / "source", 100)
    image = make_image(tmp_path / "image", 90, "ext4", "-b", "1024", "-O",
                       "casefold,quota,project", "-d", tmp_path / "source")
    assert not unexplained(image, "ext4", matrix, "ext4 1K casefold, quota, project, filled unmounted")


def test_ext_groups_with_files_but_no_block_bitmap(tmp_path, matrix):
    """The volume is as a tool leaves it that fills it unmounted: the inodes are in a group that was never
    used."""
    (tmp_path / "source").mkdir()
    for number in range(300):
        (tmp_path / "source" / f"empty{number}").touch()
    filled = ["ext4", "-b", "1024", "-N", "640", "-d", tmp_path / "source"]
    for name, options in {"without flex_bg": ["-O", "^flex_bg"], "with flex_bg": []}.items():
        image = make_image(tmp_path / "image", 40, *filled, *options)
        if options: # newer tools write each bitmap
            for change in "flags 0x6", "checksum calc": # BLOCK_UNINIT, ITABLE_ZEROED
                run("debugfs", "-w", "-R", f"set_block_group 1 {change}", image)
            assert "BLOCK_UNINIT" in run("dumpe2fs", image)
        assert not unexplained(image, "ext4", matrix, f"ext4 1K, filled unmounted, {name}")


def test_ext_flag_of_a_group_counts_with_checksums_only(tmp_path, matrix):
    """Without checksums the flag is a leftover, as on a volume whose checksums were removed."""
    image = make_image(tmp_path / "image", 90, "ext4", "-b", "1024", "-O",
                       "^metadata_csum,^uninit_bg,^has_journal")
    with mounted(image, "ext4", tmp_path / "mnt") as (_, directory):
        age(directory, 300)
    clean = Comparison(image, "ext4")
    for group in range(11):
        run("debugfs", "-w", "-R", f"set_block_group {group} flags 2", image)
    flagged = Comparison(image, "ext4", truth=clean.truth).note(matrix, "ext4 1K, flags without checksums")
    assert flagged.used == clean.used
    assert len(clean.used) > 20_000


def captured(device, image):
    """The current content of a device, read through its cache, without a freeze."""
    shutil.copyfile(device, image)
    return image


@pytest.mark.parametrize("name", ["ext3 1K", "ext4 4K"])
def test_ext_journal_that_needs_recovery_is_refused(name, tmp_path):
    sample = SAMPLES[name]
    image = make_sample(tmp_path / "image", sample)
    with mounted(image, sample.file_system, tmp_path / "mnt") as (device, directory):
        age(directory, 300)
        capture = captured(device, tmp_path / "capture")
        assert "needs_recovery" in run("dumpe2fs", "-h", capture)
        assert "The EXT journal needs recovery, so the bitmaps may be out of date" in refused(capture)
        with frozen(directory):
            Comparison(device, "ext4")
    with mounted(capture, sample.file_system, tmp_path / "mnt"):
        pass # the kernel replays the journal
    Comparison(capture, "ext4")


@pytest.mark.parametrize("feature, named", [
    ("needs_recovery", "The EXT journal needs recovery"),
    ("compression", "features: incompat compression ["),
    ("FEATURE_I31", "features: incompat 0x80000000 ["),
    ("shared_blocks", "features: ro_compat shared_blocks ["),
    ("FEATURE_R30", "features: ro_compat 0x40000000 ["),
])
def test_ext_features_that_are_not_known_are_refused(feature, named, tmp_path):
    image = make_image(tmp_path / "image", 90, "ext4", "-b", "1024")
    Comparison(image, "ext4")
    run("debugfs", "-w", "-R", f"feature {feature}", image)
    assert feature in run("dumpe2fs", "-f", "-h", image)
    assert named in refused(image)


def test_ext_journal_on_a_device_of_its_own_is_refused(tmp_path):
    image = make_image(tmp_path / "image", 90, "ext2", "-O", "journal_dev")
    assert "features: incompat journal_dev [" in refused(image)


def test_ext_volume_of_more_blocks_than_the_buffer_has_bits_is_refused(tmp_path):
    image = make_image(tmp_path / "image", 9000, "ext4", "-b", "1024", "-E",
                       "lazy_itable_init=1,lazy_journal_init=1")
    complaints = refused(image, "--buffer", "1").splitlines()
    assert len(complaints) == 2, complaints # nothing that was read is wrong
    assert "A logical error occurred while attempting to parse the EXT bitmap, err: -1" in complaints[0]
    found = json.loads(run(TOOL, "--json", "--summary", "--buffer", "2", image))
    assert found["blocks"] == 9000 * 1024


def poison_free_blocks(image, used, block_size):
    """Overwrites what a FULL backup would leave out, as if the remote image had held other data before."""
    with open(image, "r+b") as file:
        blocks = os.path.getsize(image) // block_size
        for block in range(blocks):
            if block not in used:
                file.seek(block * block_size)
                file.write(b"\xa7" * block_size)


@pytest.mark.parametrize("name", ["ext2 1K", "ext4 4K", "ext4 1K without flex_bg",
                                  "ext4 1K uninit_bg without flex_bg"])
def test_ext_lives_without_its_free_blocks(name, tmp_path):
    """The blocks that the map leaves out in groups that were never used hold no live data: only backups of
    the superblock and structures that were never written to."""
    sample = SAMPLES[name]
    image = make_sample(tmp_path / "image", sample)
    with mounted(image, sample.file_system, tmp_path / "mnt") as (_, directory):
        age(directory, 150)
        before = tree_hashes(directory)
    found = Comparison(image, "ext4")
    poison_free_blocks(image, found.used, found.truth.block_size)
    run("e2fsck", "-fn", image)
    with mounted(image, sample.file_system, tmp_path / "mnt") as (_, directory):
        assert tree_hashes(directory) == before
        age(directory, 150, seed=2)  # uses some of the groups that were never used
    run("e2fsck", "-fn", image)


def test_ext_is_repaired_by_what_the_map_leaves(tmp_path):
    """The map has a boot loader before the first group, and the backup of a superblock in an unused group."""
    image = make_image(tmp_path / "image", 90, "ext4", "-b", "1024")
    with open(image, "r+b") as file:
        file.write(b"boot" * 256)
    found = Comparison(image, "ext4")
    poison_free_blocks(image, found.used, 1024)
    with open(image, "r+b") as file:
        assert file.read(1024) == b"boot" * 256
        file.write(bytes(4096)) # the boot block, the superblock, and descriptors
    assert subprocess.run(["dumpe2fs", "-h", image], capture_output=True, check=False).returncode != 0
    repaired = subprocess.run(["e2fsck", "-fy", "-b", "8193", "-B", "1024", image], capture_output=True,
                              check=False)
    assert repaired.returncode == 1, repaired.stdout
    run("e2fsck", "-fn", image)


def test_xfs_tree_of_three_levels(tmp_path, matrix):
    image = make_image(tmp_path / "image", 320, "xfs", "-b", "size=1024", "-d", "agcount=4")
    with mounted(image, "xfs", tmp_path / "mnt") as (device, directory):
        fragment_free_space(directory / "riddled", 1024, 30_000)
        with frozen(directory):
            assert not unexplained(device, "xfs", matrix, "xfs 1K, free in single blocks, frozen")
    assert max(xfs.number(image, f"agf {group}", "bnolevel") for group in range(4)) >= 3
    assert not unexplained(image, "xfs", matrix, "xfs 1K, free in single blocks, clean")
    assert not unexplained(image, "xfs", matrix, "xfs 1K, free in single blocks, in two chunks",
                           "--buffer", "1")


def test_xfs_full(tmp_path, matrix):
    # A reverse-mapping tree would have reserved room that files can't take.
    image = make_image(tmp_path / "image", 300, "xfs", "-b", "size=1024", "-m", "rmapbt=0")
    with mounted(image, "xfs", tmp_path / "mnt") as (_, directory):
        age(directory, 200)
        fill(directory)
    assert not unexplained(image, "xfs", matrix, "xfs 1K, full")
    found = Comparison(image, "xfs")
    assert len(found.truth.free) < found.truth.blocks // 20


def test_xfs_without_checksums(tmp_path, matrix):
    """Current kernels can't mount a volume of this format, so the tool that makes it also fills it."""
    for size in 512, 1024, 4096:
        content = tmp_path / "content"
        content.write_bytes(os.urandom(700_000))
        prototype = tmp_path / "prototype"
        prototype.write_text("/\n0 0\nd--755 0 0\n" +
                             "".join(f"f{number} ---644 0 0 {content}\n" for number in range(40)) + "$\n$\n")
        image = make_image(tmp_path / "image", 300, "xfs", "-m", "crc=0", "-b", f"size={size}",
                           "-p", prototype)
        assert not unexplained(image, "xfs", matrix, f"xfs {size} bytes, without checksums")
        found = Comparison(image, "xfs")
        assert len(found.used) * size > 40 * 700_000


def test_xfs_free_list_with_stale_entries(tmp_path):
    """A kernel whose list has one entry less has left an empty list; the blocks that its entries name are
    used now."""
    image = make_image(tmp_path / "image", 300, "xfs", "-s", "size=512")
    clean = Comparison(image, "xfs")
    commands = ["agf 0", "write flfirst 0", "write fllast 117", "write flcount 0", "agfl 0",
                *(f"write bno[{entry}] 1" for entry in range(xfs.FREE_LIST_ENTRIES))]
    listed = {int(block) for _, block in xfs.free_list_of(image, 0)}
    run("xfs_db", "-x", *(part for command in commands for part in ("-c", command)), image)
    found = json.loads(run(TOOL, "--json", image))
    used = {block for first, count in found["ranges"] for block in range(first, first + count)}
    assert 1 in clean.used
    assert used == clean.used | listed


@pytest.mark.parametrize("command, named", [
    ("write -d features_incompat 0x1b", "XFS: The volume needs repair."),
    ("write -d features_incompat 0x20b", "features: incompat zoned ["),
    ("write -d features_incompat 0x80000003", "features: incompat 0x80000000 ["),
    ("write -d features_ro_compat 0x80000005", "features: ro_compat 0x80000000 ["),
])
def test_xfs_features_that_are_not_known_are_refused(command, named, tmp_path):
    image = make_image(tmp_path / "image", 300, "xfs")
    Comparison(image, "xfs")
    run("xfs_db", "-x", "-c", "sb 0", "-c", command, image)
    assert named in refused(image)


@pytest.mark.parametrize("name", ["ext4 4K", "xfs 4K 4 groups"])
def test_files_of_the_driver_are_left_out_where_the_volume_is_mounted(name, tmp_path):
    """On an unmounted volume these files count as used, because their blocks can't be found out."""
    sample = SAMPLES[name]
    image = make_sample(tmp_path / "image", sample)
    sizes = {".tolvu": 5 << 20, ".tolvu1": 3 << 20, ".tolvu.inc": 1 << 20}
    with mounted(image, sample.file_system, tmp_path / "mnt") as (device, directory):
        age(directory, 50)
        with frozen(directory):
            assert json.loads(run(TOOL, "--json", device))["driverFileBytes"] == 0
        for file, size in sizes.items():
            with open(directory / file, "wb") as cow:
                os.posix_fallocate(cow.fileno(), 0, size)
        (directory / "sub").mkdir()
        (directory / "sub" / ".tolvu").write_bytes(bytes(1 << 20)) # not in the root: an ordinary file
        with frozen(directory):
            found = json.loads(run(TOOL, "--json", device))
            summary = run(TOOL, "--summary", device)
        assert found["driverFileBytes"] == sum(sizes.values())
        assert f"left out    {sum(sizes.values())} bytes of the snapshot driver's own files\n" in summary
    counted = json.loads(run(TOOL, "--json", image))
    assert counted["driverFileBytes"] is None
    assert "counted     the snapshot driver's own files, if there are any" in run(TOOL, "--summary", image)
    used = {block for first, count in found["ranges"] for block in range(first, first + count)}
    both = {block for first, count in counted["ranges"] for block in range(first, first + count)}
    assert len(used) == found["usedBlocks"]
    assert len(both - used) >= sum(sizes.values()) // found["blockSize"]


def test_summary_and_lines_tell_the_same(tmp_path):
    image = make_image(tmp_path / "image", 64, "ext4", "-b", "1024")
    ranges = [tuple(map(int, line.split())) for line in run(TOOL, image).splitlines()]
    found = json.loads(run(TOOL, "--json", image))
    assert [tuple(pair) for pair in found["ranges"]] == ranges
    assert all(first + count < following for (first, count), (following, _) in zip(ranges, ranges[1:]))
    assert found["usedBlocks"] == sum(count for _, count in ranges)
    assert found["usedBytes"] == 1024 * found["usedBlocks"]
    summary = dict(line.split(None, 1) for line in run(TOOL, "--summary", image).splitlines())
    assert summary["ranges"] == str(len(ranges))
    assert summary["used"] == f"{found['usedBlocks']} blocks, {found['usedBytes']} bytes"
    assert "ranges" not in json.loads(run(TOOL, "--json", "--summary", image))


@pytest.mark.parametrize("arguments, status, complaint", [
    ([], 2, "DEVICE is required"),
    (["--buffer", "0", "/dev/null"], 2, "--buffer"),
    (["/nowhere"], 1, "/nowhere: Unable to open block device"),
    (["/dev/null"], 1, "/dev/null: the file system is of no kind that is known"),
])
def test_mistakes_are_explained(arguments, status, complaint):
    done = subprocess.run([TOOL, *arguments], capture_output=True, text=True, check=False)
    assert (done.returncode, done.stdout) == (status, "")
    assert complaint in done.stderr


def test_output_that_cant_be_written_is_a_failure(tmp_path):
    image = make_image(tmp_path / "image", 64, "ext4")
    with open("/dev/full", "wb") as full:
        done = subprocess.run([TOOL, image], stdout=full, stderr=subprocess.PIPE, text=True, check=False)
    assert done.returncode == 1 and "standard output can't be written" in done.stderr
