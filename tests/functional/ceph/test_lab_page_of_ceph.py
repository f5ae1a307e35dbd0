"""The blocks of lab/README.md that take a Ceph cluster, as printed."""
from pages import CEPH, ROOT, Page, check_program


def test_programs():
    found = Page(ROOT / "lab" / "README.md").of(CEPH)
    assert found
    for block in found:
        check_program(block, ROOT)
