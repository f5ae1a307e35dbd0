"""The used blocks that the agent finds on HFS+, compared with other tools; and volumes that are rebuilt from
only those blocks, where each file must be the same. A program reads the files, as the lab can't mount such a
volume."""
import functools
import subprocess

import pytest

from hfs_files import files_of
from lab import hfs, oracles
from lab.commands import run
from lab.hfs_maker import content_of, path_of
from lab.volume_images import make_image
from used_maps import TOOL, agreed, refused

BLKLS = functools.partial(oracles.sleuthkit, "hfs")
PARTCLONE = functools.partial(oracles.partclone, "hfsp") # miscounts if extents are in the tree
FILES = 60
SMALL_BLOCKS = ("--block-size", "512")


@pytest.mark.parametrize("sample", hfs.KIND.samples, ids=lambda sample: sample.name)
def test_all_agree_and_nothing_else_is_needed(sample, directory):
    image = make_image(directory / "image", sample.mebibytes, sample.file_system, *sample.options)
    found = agreed(image, "hfsplus", by=[BLKLS] if "--depth" in sample.options else [BLKLS, PARTCLONE])
    files = {path_of(number): content_of(number) for number in range(FILES)}
    assert files_of(image) == files
    rebuilt = found.rebuild(directory / "rebuilt")
    assert files_of(rebuilt) == files
    agreed(rebuilt, "hfsplus", by=[BLKLS])


def test_extents_that_fill_the_fork_are_no_map(directory):
    image = make_image(directory / "image", 32, "hfsplus", *SMALL_BLOCKS, "--fragments", "8")
    assert run(TOOL, image) == ""


@pytest.mark.parametrize("options, reason", [
    ((*SMALL_BLOCKS, "--fragments", "14"), "First node is not an index node"),
    ((*SMALL_BLOCKS, "--fragments", "31", "--files", "20", "--depth", "3", "--stale"),
     "An index of the HFS+ extents file has something behind its records"),
    (("--journaled", "--unclean"),
     "The HFS+ journal may have to be replayed, so the bitmap may be out of date"),
    (("--inconsistent",), "The HFS+ volume needs repair"),
    (("--block-size", "2097152"), "The HFS+ block size is impossible"),
])
def test_what_cannot_be_trusted_is_refused(options, reason, directory):
    image = make_image(directory / "image", 64, "hfsplus", *options)
    assert reason in refused(image)


def test_copy_of_the_header_that_is_out_of_date_is_refused(directory):
    image = make_image(directory / "image", 64, "hfsplus")
    with open(image, "r+b") as file:
        copy = file.read(512)
        file.seek(0)
        run(hfs.MAKER, "--block-size", "8192", image)
        file.write(copy)
    assert "The HFS+ headers differ" in refused(image)


def test_header_at_its_usual_place_is_not_enough(directory):
    image = make_image(directory / "image", 64, "hfsplus", "--usual-header-only")
    done = subprocess.run([TOOL, image], capture_output=True, text=True, check=False)
    assert done.returncode == 1 and "of no kind that is known" in done.stderr
