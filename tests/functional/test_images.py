"""The lab's checks of images: they find the possible errors of a backup, and report no others.

The images are made by hand: poison, overwritten with the blocks that the file system's own tool reports as
used.
"""
import os
import pathlib
import random

import pytest

from lab import filesystems, images, poison
from lab.commands import run
from lab.daemon import program
from lab.driver import OWN_FILES
from lab.filesystems import kind_of, truth_of
from lab.images import ImageError, compare_used, fsck, mounted, tree_hashes
from lab.loops import attached, backing_files
from lab.snapshots import MOUNT_ROOT
from lab.volume_images import age
from lab.volumes import Disk, Volume
from snapshot_site import SnapshotSite

MIB = 1 << 20
BIG = "ein großes Büro.bin"
PLAIN_BIG = "a big office.bin"


class Made:
    """A volume with files, and its image without the agent's own files."""

    def __init__(self, partition, root, image, *, device=None, offset=0):
        self.file_system = partition.volume.file_system
        self.is_plain = kind_of(self.file_system).is_plain
        self.big = big_in(self.file_system)
        self.device = device or partition.device
        self.block_size = truth_of(self.device, self.file_system).block_size
        self.root = root
        self.image = image
        self.offset = offset
        poison.make_image(image, offset + int(partition.volume.mebibytes * MIB))
        copy_used(self.device, self.image, self.file_system, offset)

    def compare(self, **options):
        return compare_used(self.device, self.image, self.file_system, self.offset, **options)

    def fsck(self):
        fsck(self.image, self.file_system, self.offset)

    def tree(self):
        with mounted(self.image, self.file_system, self.offset) as root:
            return tree_hashes(root)

    def overwrite(self, at, content):
        with open(self.image, "r+b") as file:
            os.pwrite(file.fileno(), content, self.offset + at)

    def read(self, at, length):
        with open(self.image, "rb") as file:
            return os.pread(file.fileno(), length, self.offset + at)

    def place_of(self, name):
        """The offset of a file's first extent."""
        return images.extents_on(self.device, self.file_system, self.root, name)[0][0]

    def free_extents(self):
        truth = truth_of(self.device, self.file_system)
        return [(first * truth.block_size, count * truth.block_size) for first, count in truth.free_ranges]


def big_in(file_system):
    return PLAIN_BIG if kind_of(file_system).is_plain else BIG


def copy_used(device, image, file_system, offset):
    excluded_extents = images.extents_of_files(device, file_system, OWN_FILES)
    with open(device, "rb", buffering=0) as source, open(image, "r+b", buffering=0) as target:
        used = truth_of(device, file_system).used_extents()
        for at, length in images.pieces(images.without(used, excluded_extents)):
            os.pwrite(target.fileno(), os.pread(source.fileno(), length, at), offset + at)


def fill(root, file_system):
    """Creates files, links, and the driver's and the agent's own files; deleted files leave old data in free
    blocks."""
    fill_as_user(root, file_system)
    for name in OWN_FILES:
        (root / name).write_bytes(random.Random(name).randbytes(MIB))
    os.sync()


def fill_as_user(root, file_system):
    is_plain = kind_of(file_system).is_plain
    age(root, 200, is_plain=is_plain)
    (root / big_in(file_system)).write_bytes(random.Random(7).randbytes(3 * MIB + 5))
    if not is_plain:
        (root / "link").symlink_to("nowhere/at all")
        (root / "sparse").touch()
        os.truncate(root / "sparse", 8 * MIB)
    (root / "d0" / ".tolvu").write_text("a user's file of this name\n")
    os.sync()


@pytest.fixture(scope="module", params=filesystems.usual_samples(), ids=lambda sample: sample.name)
def volume(request, private_machine):
    """A volume that isn't written to any more, and its mount point."""
    sample = request.param
    with Disk([Volume("data", sample.file_system, sample.mebibytes, making=sample.options)]) as disk, \
            disk["data"].mounted("/mnt/Büro und Lager") as mount_point:
        root = pathlib.Path(mount_point)
        fill(root, sample.file_system)
        run("mount", "-o", "remount,ro", root)
        yield disk["data"], root


@pytest.fixture
def made(volume, directory):
    return Made(*volume, directory / "image")


def check_right(made):
    comparison = made.compare().check()
    assert comparison.differing == comparison.unwritten == []
    assert comparison.blocks * comparison.block_size > 6 * MIB
    made.fsck()
    tree = made.tree()
    assert tree == tree_hashes(made.root)
    assert tree[made.big].size == 3 * MIB + 5
    if not made.is_plain:
        assert tree["link"].content == "nowhere/at all"
        assert tree["sparse"].size == 8 * MIB
    assert "d0/.tolvu" in tree
    assert not set(tree) & set(OWN_FILES)


def test_image_of_all_used_blocks_is_right(made):
    """The image is right although its free blocks, and those of the agent's own files, are still poison."""
    for at, length in made.free_extents():
        assert poison.is_poison(made.read(at, length))
    for name in OWN_FILES:
        assert poison.is_poison(made.read(made.place_of(name), made.block_size))
    check_right(made)


def test_volume_need_not_begin_with_the_image(volume, directory):
    check_right(Made(*volume, directory / "image", offset=MIB))


def test_free_blocks_may_hold_anything(made):
    for at, length in made.free_extents():
        made.overwrite(at, os.urandom(4096) * (length // 4096))
    check_right(made)


def test_blocks_of_own_files_are_compared_when_asked_for(made):
    comparison = made.compare(excluded=())
    assert comparison.unwritten == comparison.differing
    assert len(comparison.differing) * made.block_size == len(OWN_FILES) * MIB


def test_flipped_byte_is_found(made):
    """The byte is in a file; the file system itself is sound."""
    good = made.tree()
    at = made.place_of(made.big)
    made.overwrite(at + 100, bytes([made.read(at + 100, 1)[0] ^ 1]))
    comparison = made.compare()
    assert (comparison.differing, comparison.unwritten) == ([at], [])
    with pytest.raises(ImageError, match=rf"1 of {comparison.blocks} used blocks .* 0 .* the first at {at}$"):
        comparison.check()
    made.fsck()
    assert {name for name, entry in made.tree().items() if entry != good[name]} == {made.big}


def test_block_never_written_is_found(made):
    good = made.tree()
    at = made.place_of(made.big) + made.block_size
    made.overwrite(at, poison.MARK * (made.block_size // len(poison.MARK)))
    comparison = made.compare()
    assert comparison.differing == comparison.unwritten == [at]
    assert {name for name, entry in made.tree().items() if entry != good[name]} == {made.big}


def test_structure_never_written_is_found(made):
    for at, complaint in kind_of(made.file_system).structures(made.device, made.root).items():
        good = made.read(at, made.block_size)
        made.overwrite(at, poison.MARK * (made.block_size // len(poison.MARK)))
        assert made.compare().unwritten == [at]
        with pytest.raises(ImageError, match=complaint):
            made.fsck()
        made.overwrite(at, good)
    check_right(made)


def test_missing_file_is_found(made, tmp_path):
    good = made.tree()
    options = kind_of(made.file_system).writable_options
    with attached(made.image) as device, \
            filesystems.mounted(made.file_system, device, tmp_path / "writable", options) as writable:
        (writable / made.big).unlink()
    assert set(good) - set(made.tree()) == {made.big}
    with pytest.raises(ImageError):
        made.compare().check()


def test_image_that_is_too_short_is_found(made):
    at = made.place_of(made.big) + made.block_size
    os.truncate(made.image, at)
    comparison = made.compare()
    assert comparison.differing[0] == at
    assert comparison.unwritten == []


@pytest.mark.parametrize("change", [
    lambda path: path.chmod(0o640),
    lambda path: os.chown(path, 1000, -1),
    lambda path: os.chown(path, -1, 1000),
    lambda path: os.utime(path, ns=(0, path.stat().st_mtime_ns + 1)),
    lambda path: path.write_bytes(b"other"),
    lambda path: path.rename(path.with_name("renamed")),
    lambda path: (path.unlink(), path.symlink_to("content")),
    lambda path: (path.with_name("link").unlink(), path.with_name("link").symlink_to("content2")),
    lambda path: path.with_name("empty").mkdir(),
])
def test_trees_that_differ_are_told_apart(tmp_path, change):
    tree = tmp_path / "tree"
    tree.mkdir()
    (tree / "file").write_bytes(b"bytes")
    (tree / "link").symlink_to("content1")
    before = tree_hashes(tree)
    assert tree_hashes(tree) == before
    change(tree / "file")
    assert tree_hashes(tree) != before


def test_image_of_a_snapshot(site, directory):
    """An image as a backup makes it: a frozen file system needs no journal replay, its tools report no error,
    and while the image is examined, it isn't mistaken for the volume."""
    with SnapshotSite() as lab_site:
        for name in lab_site.names:
            fill_as_user(lab_site.mount_point(name), lab_site[name].volume.file_system)
        with lab_site.session(incremental=False) as session:
            facts = session.start()
            for name in lab_site.names:
                age(lab_site.mount_point(name), 50, seed=2)
            os.sync()
            for name in lab_site.names:
                check_snapshot(lab_site, name, facts[name]["snapshotPath"], directory / name)
            session.end("success")
        lab_site.check_clean()


def check_snapshot(lab_site, name, path, image):
    partition = lab_site[name]
    root = MOUNT_ROOT / partition.uuid
    made = Made(partition, root, image, device=path)
    assert (root / ".tolvu").exists()
    made.compare().check()
    made.fsck()
    assert made.tree() == tree_hashes(root) != tree_hashes(lab_site.mount_point(name))
    for look in (mounted(image, made.file_system), images.replayed(image, made.file_system)):
        with look:
            run("udevadm", "settle")
            assert run(program("Volumes"), input="\n").count(f'"uuid":"{partition.uuid}"') == 1
            assert str(pathlib.Path("/dev/disk/by-uuid", partition.uuid).resolve()) == partition.device
    ours = f"/{image.parent.name}/{image.name}" # the part of the path before it depends on the namespace
    assert not [file for file in backing_files().values() if file.endswith(ours)]
