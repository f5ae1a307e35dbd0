"""The used blocks that the parsers find, compared block by block with programs that took no part in making
the volumes; and volumes that are rebuilt from only those blocks."""
import pytest

from lab import filesystems
from lab.images import tree_hashes
from lab.used_blocks import Truth
from lab.volume_images import age, make_image, mounted
from used_maps import ORACLES, agreed, check_rebuilt

SAMPLES = {sample.name: sample for kind in filesystems.KINDS if kind.name in ORACLES
           for sample in kind.samples}


@pytest.mark.parametrize("name", SAMPLES)
def test_all_agree_and_nothing_else_is_needed(name, directory):
    sample = SAMPLES[name]
    image = make_image(directory / "image", sample.mebibytes, sample.file_system, *sample.options)
    agreed(image, sample.file_system)
    with mounted(image, sample.file_system, directory / "mnt") as (_, root):
        age(root, 300, is_plain=filesystems.kind_of(sample.file_system).is_plain)
        tree = tree_hashes(root)
    check_rebuilt(agreed(image, sample.file_system), directory / "rebuilt", sample.file_system, tree)


@pytest.mark.parametrize("kind", ORACLES)
def test_what_no_oracle_can_read_is_an_error(kind, directory):
    (directory / "image").write_bytes(bytes(1 << 20))
    for oracle in ORACLES[kind]:
        with pytest.raises(OSError):
            oracle(directory / "image", 512)


def test_oracle_that_says_something_else_is_noticed(directory):
    image = make_image(directory / "image", 24, "ntfs")
    truth = agreed(image, "ntfs").truth
    (first, count), *others = truth.free_ranges
    for told in (Truth(truth.blocks, truth.block_size, [(first, count - 1), *others]),
                 Truth(truth.blocks + 1, truth.block_size, truth.free_ranges)):
        with pytest.raises(AssertionError):
            agreed(image, "ntfs", by=[lambda _volume, _size, told=told: told])
