"""The blocks of lab/README.md that need a machine, as printed."""
import subprocess

from lab.virtual import images
from pages import MACHINE, ROOT, Page, check_blocks, shell_in


def test_commands():
    by_hand = images.directory() / "by-hand-machine"
    assert not by_hand.exists(), "there is a machine of the page's name: `lab/machine down` first"
    found = Page(ROOT / "lab" / "README.md").of(MACHINE)
    assert found
    try:
        check_blocks(found, shell_in(ROOT))
        assert not by_hand.exists()
    finally:
        subprocess.run([ROOT / "lab" / "machine", "down"], check=True)
