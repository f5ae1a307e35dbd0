"""Joins sources to one for clang-tidy, so that the headers they share are read and checked only once.

An overlay of the file system puts the joined text in the place of the first source: clang-tidy finds the
compile command, the headers and the .clang-tidy of that source, and takes all of it for the main file, about
which some checks report more than about included files.
"""

import bisect
import contextlib
import dataclasses
import itertools
import json
import os
import re
import tempfile
from pathlib import Path

MOST = 24
# Constants, types and aliases. Functions are left out: those of the same name mostly differ in their
# parameters.
DEFINITION = re.compile(r"^((?:const|constexpr|using|struct|class|enum|namespace(?= \w+ =))\b"
                        r"[\w:<>,*& ]*[ *&](\w+) ?[=({;].*)", re.MULTILINE)
ALIAS = re.compile(r"using|namespace")


@dataclasses.dataclass
class Group:
    """Sources, and their definitions by name."""

    files: list = dataclasses.field(default_factory=list)
    definitions: dict = dataclasses.field(default_factory=dict)

    def takes(self, definitions):
        return len(self.files) < MOST and all(self.definitions.get(name, definition) == definition
                                              for name, definition in definitions.items())

    def add(self, file, definitions):
        self.files.append(file)
        self.definitions.update(definitions)


def groups_of_sources(files, commands):
    """Groups the sources that are in one folder and have the same compile command. Judging by their lines,
    no two sources of a group define the same name: such a group would have to be split again."""
    places = {}
    for file in files:
        command = commands.get(file.path, file.path).replace(file.name, "")
        groups = places.setdefault((os.path.dirname(file.path), command), [])
        definitions = definitions_in(file)
        group = next((group for group in groups if group.takes(definitions)), None)
        if group is None:
            group = Group()
            groups.append(group)
        group.add(file, definitions)
    return [group.files for groups in places.values() for group in groups]


def definitions_in(file):
    """The definitions by name. An alias may occur twice if it means the same, anything else only once."""
    return {name: line if ALIAS.match(line) else file.path for line, name in DEFINITION.findall(file.text)}


@contextlib.contextmanager
def overlay(files):
    """The path of an overlay in which the first source holds the text of all of them."""
    with tempfile.TemporaryDirectory() as folder:
        joined = Path(folder) / files[0].name
        joined.write_text(joined_text(files))
        roots = [{"type": "file", "name": str(files[0].absolute), "external-contents": str(joined)}]
        path = Path(folder) / "overlay.json"
        path.write_text(json.dumps({"version": 0, "use-external-names": False, "roots": roots}))
        yield path


def source_at(files, line):
    """The source that a line of the joined text comes from."""
    ends = list(itertools.accumulate(len(file.lines) for file in files))
    return files[min(bisect.bisect_left(ends, line), len(files) - 1)]


def joined_text(files):
    """Leaves out an include that an earlier source has made: within one source, it would be a duplicate."""
    lines = []
    included = set()
    for file in files:
        first_lines = {(quote, name): line for line, quote, name in reversed(file.includes)}
        repeated = {line for header, line in first_lines.items() if header in included}
        included.update(first_lines)
        lines += ["" if number in repeated else line for number, line in enumerate(file.lines, 1)]
    return "\n".join([*lines, ""])
