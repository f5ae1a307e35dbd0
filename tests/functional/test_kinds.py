"""Each kind of file system is complete: the lab can make and check whatever the agent can read, and no piece
of a kind is missing."""
import dataclasses
import pathlib
import shutil

import pytest

from kinds import agent_kinds, missing_in, missing_pieces, pieces_in, unknown_parsers
from lab import filesystems, images, xfs
from lab.filesystems import KINDS, OTHERS, NotMountable, UnknownKind, kind_of, truth_of
from lab.kind import ONLY_MOUNTED

ROOT = pathlib.Path(__file__).resolve().parents[2]
PARSER = "src/core/fs/KIND/"


@pytest.fixture(scope="session")
def private_machine():
    """Overrides the usual fixture: only bek-usedmap is run here, which works before the agent is built."""


@pytest.fixture
def site():
    """Overrides the usual fixture, as above."""


def lines(found):
    return "missing:\n" + "\n".join(found)


def test_agent_and_lab_have_the_same_kinds():
    agent, lab = set(agent_kinds()), {kind.name for kind in KINDS}
    assert agent == lab, f"agent without lab: {sorted(agent - lab)}; lab without agent: {sorted(lab - agent)}"


def test_each_kind_has_all_its_pieces():
    missing = missing_pieces(ROOT, agent_kinds())
    assert not missing, lines(missing)


def test_each_parser_is_of_a_kind():
    unknown = unknown_parsers(ROOT, agent_kinds())
    assert not unknown, f"folders of parsers without a row in FileSystemKinds.cpp: {unknown}"


def test_each_row_of_the_lab_is_whole():
    missing = [field for kind in KINDS for field in missing_in(kind)]
    assert not missing, lines(missing)


def test_no_file_system_has_two_rows():
    names = [name for row in KINDS + OTHERS for name in row.makers]
    assert sorted(names) == sorted(set(names))


@pytest.fixture
def scratch(tmp_path):
    """A tree with the parser of a kind, but no other piece of it."""
    for place in ("docs", "src/core/fs/inventedfs"):
        (tmp_path / place).mkdir(parents=True)
    shutil.copy(ROOT / "docs/adding.md", tmp_path / "docs")
    (tmp_path / "src/core/fs/inventedfs/something").write_text("that reads nothing")
    return tmp_path


def test_missing_pieces_are_named(scratch):
    missing = missing_pieces(scratch, ["inventedfs"])
    assert missing == [f"inventedfs: {piece}" for piece in pieces_in(ROOT) if piece != PARSER]
    assert "inventedfs: docs/formats/KIND.md" in missing
    assert unknown_parsers(scratch, ["ext"]) == ["inventedfs"]
    assert unknown_parsers(scratch, ["inventedfs"]) == []


def test_pieces_with_nothing_in_them_are_missing(scratch):
    for piece in pieces_in(scratch):
        path = scratch / piece.replace("KIND", "inventedfs")
        if piece.endswith("/"):
            path.mkdir(parents=True, exist_ok=True)
        else:
            path.parent.mkdir(parents=True, exist_ok=True)
            path.touch()
    missing = missing_pieces(scratch, ["inventedfs"])
    assert "inventedfs: docs/formats/KIND.md" in missing and f"inventedfs: {PARSER}" not in missing
    for piece in (line.removeprefix("inventedfs: ").replace("KIND", "inventedfs") for line in missing):
        (scratch / piece / "content" if piece.endswith("/") else scratch / piece).write_text("something")
    assert missing_pieces(scratch, ["inventedfs"]) == []


def test_kind_that_is_nowhere_lacks_all(scratch):
    assert missing_pieces(scratch, ["otherfs"]) == [f"otherfs: {piece}" for piece in pieces_in(scratch)]


def test_pieces_have_to_be_told_of(scratch):
    (scratch / "docs/adding.md").write_text("## A call of the API\n\n| `src/KIND/` | nothing |\n")
    with pytest.raises(ValueError, match="tells of no piece"):
        missing_pieces(scratch, ["inventedfs"])


def test_row_that_leaves_something_open_is_named():
    row = dataclasses.replace(xfs.KIND, truth=None, check=(), read_only_options="", needs_replay=None)
    assert missing_in(row) == ["xfs: read_only_options", "xfs: check", "xfs: needs_replay", "xfs: truth"]


def test_only_what_is_never_mounted_lacks_what_a_mount_needs():
    lacking = dict.fromkeys(ONLY_MOUNTED)
    row = dataclasses.replace(xfs.KIND, can_freeze=False, label_option=None, **lacking)
    assert missing_in(row) == [f"xfs: {name}" for name in ONLY_MOUNTED]
    assert missing_in(dataclasses.replace(row, mount=None)) == []
    with pytest.raises(NotMountable, match="^/dev/null: swap can't be mounted$"):
        filesystems.mounted("swap", "/dev/null", "/mnt/nothing")


@pytest.mark.parametrize("use", [
    kind_of,
    lambda name: filesystems.make(name, "/dev/null"),
    lambda name: filesystems.mounted(name, "/dev/null", "/mnt/nothing"),
    lambda name: truth_of("/dev/null", name),
    lambda name: images.fsck("/dev/null", name),
    lambda name: images.compare_used("/dev/null", "/dev/null", name),
], ids=["row", "make", "mount", "truth", "check", "compare"])
@pytest.mark.parametrize("name", ["inventedfs", ""])
def test_unknown_kind_is_refused(use, name):
    complaint = f"^'{name}' is no file system that is known for this; there are ext2, "
    with pytest.raises(UnknownKind, match=complaint):
        use(name)


@pytest.mark.parametrize("name", [name for row in OTHERS for name in row.makers])
def test_what_can_only_be_made_is_not_looked_into(name):
    """For a file system without a parser in the agent, the lab has neither `truth` nor `check`."""
    with pytest.raises(UnknownKind):
        truth_of("/dev/null", name)
    with pytest.raises(UnknownKind):
        images.fsck("/dev/null", name)
