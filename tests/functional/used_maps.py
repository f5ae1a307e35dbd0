"""The used blocks that the parsers find, by bek-usedmap, beside what the file systems' own tools say."""
import json
import os
import pathlib
import re
import subprocess

from volume_images import run, xfs_value

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / os.environ.get("BEKD_BUILD", "build/release")
TOOL = BUILD / "bek-usedmap"
FREE_LIST_ENTRIES = 119 # of them, behind a header with the checksum


class Comparison:
    """Used blocks as the agent finds them beside what the tool of the file system says."""

    def __init__(self, volume, truth, *options):
        found = json.loads(run(TOOL, "--json", *options, volume))
        assert (found["blocks"], found["blockSize"]) == (truth.blocks, truth.block_size)
        self.used = set()
        for first, count in found["ranges"]:
            self.used.update(range(first, first + count))
        self.truth = truth
        truly_used = set(range(truth.blocks)) - truth.free
        self.lost = truly_used - self.used    # a backup would leave them out
        self.kept = self.used & truth.free    # a backup would copy them for nothing

    def note(self, matrix, name):
        matrix.append((name, self.truth.blocks, len(self.used), len(self.lost), len(self.kept)))
        return self


def refused(volume, *options):
    """What the tool says when it can't read the map."""
    done = subprocess.run([TOOL, *options, volume], capture_output=True, text=True, check=False)
    assert done.returncode == 1 and done.stdout == ""
    assert done.stderr.endswith("the map of used blocks can't be read; a backup would copy every block\n")
    return done.stderr


def unread_free_list(volume):
    """The blocks in the sectors of the free lists behind the first 512 bytes of each."""
    ag_blocks = xfs_value(volume, "sb 0", "agblocks")
    return {group * ag_blocks + int(block) for group in range(xfs_value(volume, "sb 0", "agcount"))
            for entry, block in free_list_of(volume, group) if int(entry) >= FREE_LIST_ENTRIES}


def free_list_of(volume, group):
    """The entries in the array of a group's free list that name a block, as text: (index, block)."""
    listed = run("xfs_db", "-r", "-c", f"agfl {group}", "-c", "p bno", volume).split("=", 1)[1]
    return re.findall(r"(\d+):(\d+)", listed)
