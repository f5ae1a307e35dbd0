"""The pieces of which a kind of file system consists, and those that are missing in a tree.

docs/adding.md lists the pieces: the rows of a table whose paths have KIND in place of the name of a kind.
"""
import dataclasses
import re

from lab.commands import run
from lab.daemon import program
from lab.kind import ONLY_MOUNTED

SECTION = re.compile(r"^## A file system$(.*?)(?=^## |\Z)", re.MULTILINE | re.DOTALL)
PIECE = re.compile(r"^\| `([^`]*KIND[^`]*)`", re.MULTILINE)
PARSERS = "src/core/fs"


def agent_kinds():
    """The names of the kinds whose used blocks the agent can determine."""
    return [line.split("\t")[0] for line in run(program("bek-usedmap"), "--kinds").splitlines()]


def pieces_in(root):
    """The path patterns of the pieces that a kind needs, from the tree's own description."""
    text = (root / "docs/adding.md").read_text(encoding="utf-8")
    found = [piece for section in SECTION.findall(text) for piece in PIECE.findall(section)]
    if not found:
        raise ValueError("docs/adding.md tells of no piece of a file system")
    return found


def missing_pieces(root, kinds):
    """The pieces of these kinds that are missing in the tree: a list of "kind: piece"."""
    return [f"{kind}: {piece}" for kind in kinds for piece in pieces_in(root)
            if not any(map(is_filled, places_of(root, piece, kind)))]


def places_of(root, piece, kind):
    """The paths of a piece in the tree; file names may have the kind in capitals."""
    name = "".join(f"[{letter.lower()}{letter.upper()}]" for letter in kind)
    return [path for path in root.glob(piece.rstrip("/").replace("KIND", name))
            if path.is_dir() == piece.endswith("/")]


def is_filled(path):
    return any(path.iterdir()) if path.is_dir() else path.stat().st_size > 0


def unknown_parsers(root, kinds):
    """The parser folders that belong to none of these kinds."""
    return sorted({path.name for path in (root / PARSERS).iterdir() if path.is_dir()} - set(kinds))


def missing_in(row):
    """The fields that a row of the lab's table leaves open: a list of "kind: field"."""
    return [f"{row.name}: {field.name}" for field in dataclasses.fields(row) if not is_given(row, field)]


def is_given(row, field):
    """Whether a field is filled, or is None where its type and the kind allow that."""
    value = getattr(row, field.name)
    if value is None and field.name in ONLY_MOUNTED:
        return row.mount is None
    return isinstance(value, field.type) and (value is None or field.type is bool or bool(value))
