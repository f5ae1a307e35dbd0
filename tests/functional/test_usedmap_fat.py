"""The used clusters that the agent finds on unusual FAT32 volumes, and volumes that it refuses."""
import os
import subprocess

import pytest

from lab import filesystems
from lab.commands import run
from lab.fat import Geometry
from lab.images import tree_hashes
from lab.volume_images import age, make_image, mounted
from used_maps import TOOL, Comparison, check_rebuilt, refused

BAD = range(3000, 3400, 2) # blocks of 1 KiB, the unit of mkfs.fat


def make(directory, *options, mebibytes=90):
    return make_image(directory / "image", mebibytes, "vfat", *options)


def use(image):
    with mounted(image, "vfat", image.parent / "mnt") as (_, root):
        age(root, 300, is_plain=True)
        return tree_hashes(root)


def test_bad_clusters_are_free(directory):
    """blkls reports them as used."""
    listed = directory / "bad"
    listed.write_text("".join(f"{block}\n" for block in BAD), encoding="ascii")
    image = make(directory, "-s", "2", "-l", listed)
    tree = use(image)
    subprocess.run(["fsck.fat", "-a", image], check=False) # mkfs.fat miscounts them
    found = Comparison(image, "vfat")
    assert not found.unexplained and not found.used & set(BAD)
    check_rebuilt(found, directory / "rebuilt", "vfat", tree)


def test_volume_of_few_clusters_is_read(directory):
    """Some tools mistake it for FAT16."""
    image = make(directory, "-s", "8")
    tree = use(image)
    assert Geometry.of(image).clusters < 65525
    found = Comparison(image, "vfat")
    assert not found.unexplained
    check_rebuilt(found, directory / "rebuilt", "vfat", tree)


@pytest.mark.parametrize("offset, content, complaint", [
    (40, b"\x81", "The first FAT is not the one in use, so it may be out of date"),
    (13, b"\x03", "The FAT cluster size is impossible"),
    (36, b"\x80", "The FAT is too short for all clusters"),
    (32 * 512, b"\0\0\0\0", "The FAT doesn't begin as one does, so the boot sector may be a left-over"),
])
def test_what_would_be_read_wrongly_is_refused(offset, content, complaint, directory):
    image = make(directory, "-s", "2")
    Comparison(image, "vfat")
    with open(image, "r+b") as file:
        os.pwrite(file.fileno(), content, offset)
    assert complaint in refused(image)


@pytest.mark.parametrize("size", ["12", "16"])
def test_narrow_entries_are_of_no_known_kind(size, directory):
    image = directory / "image"
    with open(image, "wb") as file:
        file.truncate(20 << 20)
    run("mkfs.fat", "-F", size, image)
    done = subprocess.run([TOOL, image], capture_output=True, text=True, check=False)
    assert (done.returncode, done.stdout) == (1, "")
    assert f"FAT{size} is not supported" in done.stderr
    assert "the file system is of no kind that is known" in done.stderr


def test_left_over_of_a_volume_made_anew(directory):
    """The boot sector is never stale: a tool that makes another file system clears it."""
    for file_system in ("ext4", "xfs"):
        image = make(directory, "-s", "2", mebibytes=300)
        filesystems.make(file_system, image)
        assert not Comparison(image, file_system).unexplained
