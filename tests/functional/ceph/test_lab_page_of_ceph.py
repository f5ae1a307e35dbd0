"""The blocks of lab/README.md that take a Ceph cluster, as printed."""
from lab import page


def test_programs():
    found = [block for block in page.blocks(page.PAGE.read_text(encoding="utf-8")) if block.kind == page.CEPH]
    assert found
    for block in found:
        assert page.failure_of_program(block, page.PAGE.parents[1]) == ""
