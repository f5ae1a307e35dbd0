"""lab/README.md: each of its blocks as printed. Those of machines and of Ceph are tested where these are."""
import os

import pytest

from checkout import Checkout
from lab import page
from lab.daemon import program

BLOCKS = page.blocks(page.PAGE.read_text(encoding="utf-8"))
PROGRAMS = [block for block in BLOCKS if block.kind == page.PYTHON]


@pytest.fixture
def checkout(tmp_path):
    """One in which the programs of the build are where the page says."""
    with Checkout(tmp_path) as made:
        build = tmp_path / "build"
        build.mkdir()
        (build / "release").symlink_to(program("").resolve())
        yield made


def environment():
    """That of a person, who names no build."""
    return {name: value for name, value in os.environ.items() if name != "BEKD_BUILD"}


def test_all_blocks_are_of_a_kind_that_is_run_somewhere():
    kinds = {page.COMMANDS, page.TEXT, page.MACHINE, page.CEPH, page.PYTHON}
    assert {block.kind for block in BLOCKS} == kinds
    assert page.PAGE.read_text(encoding="utf-8").count("\n```") == 2 * len(BLOCKS)
    for block in BLOCKS:
        assert ("$ " in block.text) == (block.kind in (page.COMMANDS, page.MACHINE)), block.text


def test_commands(checkout):
    """One block after the other, as they follow from each other."""
    for block in BLOCKS:
        if block.kind == page.COMMANDS:
            assert page.failure_of_commands(block, checkout.directory, env=environment()) == ""


@pytest.mark.parametrize("block", PROGRAMS, ids=[str(number) for number in range(1, len(PROGRAMS) + 1)])
def test_program(checkout, block):
    assert page.failure_of_program(block, checkout.directory, env=environment()) == ""


@pytest.mark.parametrize("more, said", [("\nc\na 2", ""), ("\na 2\nd", "status 0; not printed: d; "),
                                        ("; false\na 1", "status 1; ")])
def test_what_is_not_as_printed_is_found(tmp_path, more, said):
    [block] = page.blocks(f"```\n$ printf 'a 1\\nb\\nc'{more}\n```\n")
    found = page.failure_of_commands(block, tmp_path)
    assert said in found and bool(said) == bool(found)


def test_program_that_fails_is_found():
    [block] = page.blocks("```python\nprint('then')\nraise OSError('gone')\n```\n")
    found = page.failure_of_program(block, page.PAGE.parents[1])
    assert "status 1" in found and "then" in found and "gone" in found
