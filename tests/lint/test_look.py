"""What scripts/look reports about a small tree."""

import re
import subprocess
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "scripts"))

from lintlib.tree import Tree  # noqa: E402
from looklib import comments, functions, includes  # noqa: E402

LOOK = ROOT / "scripts/look"
THREE_LINES = "int {}() {{\n    return 1;\n}}\n"
FILES = {
    "src/app/Main.cpp": '#include "info/Host.h"\n#include "Own.h"\n\n' + THREE_LINES.format("one") +
                        "\n// Why.\nint longest() {\n    // How.\n    int sum = 0;\n    ++sum;\n"
                        "    return sum;\n}\n",
    "src/app/Own.h": '#pragma once\n#include "common/Text.h"\n',
    "src/info/Host.h": '#pragma once\n#include "common/Text.h"\n',
    "src/common/Text.h": "#pragma once\n#include <string>\n",
    "tests/Test.cpp": '#include "info/Host.h"\n',
    "scripts/tool.py": '"""What it is.\n\nAnd why.\n"""\n\nTEXT = """no\ncomment"""\n\n\ndef two():\n'
                       '    # How.\n    return 1\n',
}


@pytest.fixture
def root(tmp_path):
    for path, text in FILES.items():
        (tmp_path / path).parent.mkdir(parents=True, exist_ok=True)
        (tmp_path / path).write_text(text)
    (tmp_path / "docs").mkdir()
    return tmp_path


def look(*arguments, status=0):
    done = subprocess.run([LOOK, *arguments], capture_output=True, text=True, timeout=60)
    assert done.returncode == status, done.stderr
    return done.stdout if status == 0 else done.stderr


def test_functions_by_their_lengths(root):
    found = functions.functions_of(Tree(root))
    assert [(each.lines, each.name) for each in found] == [(6, "longest"), (3, "two"), (3, "one")]
    assert found[0].path == "src/app/Main.cpp" and found[0].line == 9
    assert [functions.quantile(found, share) for share in (0, 0.5, 1)] == [3, 3, 6]


def test_share_of_comments(root):
    shares = comments.shares_by_folder(Tree(root).cpp + Tree(root).python)
    assert shares["src/app"] == comments.Share(lines=14, commented=2)
    assert shares["scripts"] == comments.Share(lines=8, commented=4)


def test_includes_of_folders(root):
    edges = includes.edges_of(Tree(root))
    assert edges == [("src/app", "src/common"), ("src/app", "src/info"), ("src/info", "src/common")]
    assert includes.without_implied(edges) == [("src/app", "src/info"), ("src/info", "src/common")]


def test_folders_that_include_each_other_stay_joined():
    ring = [("a", "b"), ("b", "c"), ("c", "a")]
    assert includes.without_implied(ring) == ring


def test_the_report(root):
    lines = look("--root", root, "--worst", "1").splitlines()
    assert re.fullmatch(r"C\+\+ functions +2", lines[1])
    assert "     6  src/app/Main.cpp:9 longest" in lines
    assert "    14  src/app/Main.cpp" in lines


def test_an_earlier_commit_beside_it(root):
    for command in (["init", "-q"], ["add", "."],
                    ["-c", "user.name=a", "-c", "user.email=a", "commit", "-qm", "one"]):
        subprocess.run(["git", "-C", root, *command], check=True)
    (root / "src/app/More.cpp").write_text(THREE_LINES.format("three"))
    lines = look("--root", root, "--since", "HEAD").splitlines()
    assert lines[0].split() == ["now", "before"]
    assert lines[1].split() == ["C++", "functions", "3", "2"]


def test_a_picture_tells_its_edges(root):
    look("--root", root, "--picture")
    picture = (root / includes.PICTURE).read_text()
    assert includes.edges_comment(includes.edges_of(Tree(root))) in picture
    assert "</svg>" in picture and ">info</text>" in picture


def test_a_commit_that_is_not_there(root):
    assert "git failed" in look("--root", root, "--since", "HEAD", status=1)
