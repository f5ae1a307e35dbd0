"""Small trees for scripts/lint, which the tests of its rules share."""

import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "scripts"))

LINT = ROOT / "scripts/lint"


def write_tree(root, files):
    """Writes files, given by their paths below `root`."""
    for path, text in files.items():
        file = root / path
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)


def lint(root, *arguments):
    """Runs scripts/lint; returns its exit status, and (path, line, rule, message) of each finding."""
    done = subprocess.run([LINT, "--root", root, *arguments], capture_output=True, text=True, timeout=300)
    assert done.stderr == ""
    return done.returncode, [re.match(r"(.+?):(\d+): ([a-z]+): (.*)", line).groups()
                             for line in done.stdout.splitlines()[:-1]]
