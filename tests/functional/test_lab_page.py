"""lab/README.md: each of its blocks as printed. Those for machines and for Ceph are tested with these."""
import os

import pytest

from checkout import Checkout
from lab.daemon import program
from pages import CEPH, MACHINE, PYTHON, ROOT, SH, Page, check_blocks, check_program, shell_in

PAGE = Page(ROOT / "lab" / "README.md")
PROGRAMS = PAGE.of(PYTHON)
FOR_READING = ""


@pytest.fixture
def checkout(tmp_path):
    """A checkout in which the programs of the build are where the page says."""
    with Checkout(tmp_path) as made:
        build = tmp_path / "build"
        build.mkdir()
        (build / "release").symlink_to(program("").resolve())
        yield made


def environment():
    """The environment of a user who doesn't set BEKD_BUILD."""
    return {name: value for name, value in os.environ.items() if name != "BEKD_BUILD"}


def test_all_blocks_are_of_a_kind_that_is_run_somewhere():
    """A block that isn't run contains "...", so it couldn't be run."""
    assert {block.kind for block in PAGE.blocks} == {SH, MACHINE, PYTHON, CEPH, FOR_READING}
    assert all("..." in block.text for block in PAGE.of(FOR_READING))


def test_commands(checkout):
    """The blocks are run one after the other, as each depends on the previous ones."""
    check_blocks(PAGE.of(SH), shell_in(checkout.directory, env=environment()))


@pytest.mark.parametrize("block", PROGRAMS, ids=[str(number) for number in range(1, len(PROGRAMS) + 1)])
def test_program(checkout, block):
    check_program(block, checkout.directory, env=environment())
