"""The blocks of lab/README.md that take a machine, as printed."""
import subprocess

from lab import page
from lab.virtual import images

ROOT = page.PAGE.parents[1]


def test_commands():
    by_hand = images.directory() / "by-hand-machine"
    assert not by_hand.exists(), "there is a machine of the page's name: `lab/machine down` first"
    try:
        for block in page.blocks(page.PAGE.read_text(encoding="utf-8")):
            if block.kind == page.MACHINE:
                assert page.failure_of_commands(block, ROOT) == ""
        assert not by_hand.exists()
    finally:
        subprocess.run([ROOT / "lab" / "machine", "down"], check=True)
