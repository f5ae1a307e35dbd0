"""The used blocks that the parsers find, by bek-usedmap, beside what the file systems' own tools say."""
import json
import subprocess

from lab.commands import run
from lab.daemon import program
from lab.filesystems import kind_of

BUILD = program().parent
TOOL = BUILD / "bek-usedmap"


class Comparison:
    """Used blocks as the agent finds them beside what the tool of the file system says."""

    def __init__(self, volume, file_system, *options, truth=None):
        self._volume = volume
        self._kind = kind_of(file_system)
        self.truth = truth = truth or self._kind.truth(volume)
        found = json.loads(run(TOOL, "--json", *options, volume))
        assert found["blockSize"] == truth.block_size
        assert found["blocks"] == truth.blocks or self._kind.goes_on and found["blocks"] > truth.blocks
        self.used = set()
        for first, count in found["ranges"]:
            self.used.update(range(first, min(first + count, truth.blocks)))
        truly_used = set(range(truth.blocks)) - truth.free
        self.lost = truly_used - self.used    # a backup would leave them out
        self.kept = self.used & truth.free    # a backup would copy them for nothing

    @property
    def unexplained(self):
        """Blocks that differ, but for free ones that the agent may take for used."""
        return self.lost | (self.kept - self._kind.doubtful(self._volume))

    def note(self, matrix, name):
        matrix.append((name, self.truth.blocks, len(self.used), len(self.lost), len(self.kept)))
        return self


def refused(volume, *options):
    """What the tool says when it can't read the map."""
    done = subprocess.run([TOOL, *options, volume], capture_output=True, text=True, check=False)
    assert done.returncode == 1 and done.stdout == ""
    assert done.stderr.endswith("the map of used blocks can't be read; a backup would copy every block\n")
    return done.stderr
