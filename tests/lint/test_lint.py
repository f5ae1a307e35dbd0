"""Each rule of scripts/lint is active: a small tree that breaks only that rule is refused, with file and
line."""

import re
import shutil
import subprocess

import pytest

from lint_tree import LINT, ROOT, lint, write_tree

from lintlib.layers import LAYERS
from lintlib.tree import Tree
from looklib.includes import edges_comment, edges_of

FORMAT = ROOT / "scripts/format"

DOCUMENTED = """\
/// Stores things.
/// Owns:    nothing.
/// Threads: any.
/// Fails:   never.
"""
INTERFACE = "public:\n    virtual ~IStore() = default;\n    virtual void store() = 0;\n};\n"
PICTURE = "# A\n\n## Layers\n\n```\n app   the top\n  |\n" + "".join(
    f" {layer:20} words\n" for layer in reversed(LAYERS[:-1])) + "```\n\n```\n other\n```\n"
CLEAN = {
    "docs/architecture.md": PICTURE,
    "src/os/Memory.h": "#pragma once\n",
    "src/common/Thing.h": "#pragma once\n\nint thing();\n",
    "src/common/IStore.h": "// Why.\n#pragma once\n\n" + DOCUMENTED + "class IStore {\n" + INTERFACE,
    "src/common/Thing.cpp": '#include "common/Thing.h"\n\nint thing() {\n    return 1;\n}\n',
    "src/info/Report.cpp": '#include "common/Thing.h"\n\nint report() {\n    return thing();\n}\n',
    "src/core/fs/ext/Layout.h": '#pragma once\n\n#include "info/log/Level.h"\n',
    "src/info/log/Level.h": "#pragma once\n",
    "tests/unit/ThingTest.cpp": "TEST(Thing, IsOne) {\n    EXPECT_EQ(thing(), 1);\n}\n",
    "tests/test_thing.py": "def test_one():\n    assert 1 + 1 == 2\n",
    "scripts/run": "#!/bin/bash\nset -eu\necho \"$HOME\"\n",
    "README.md": "See [a header](src/common/Thing.h#L1), [a site](https://example.org/), [below](#here).\n",
}

LONG_TEXT = "x" * 100

# (rule, file, its text, the line that the rule names)
BROKEN = [
    ("format", "src/common/Odd.cpp", "int odd() {\n  return 1;\n}\n", 1),
    ("layers", "src/common/Upward.cpp", '#include "info/log/Level.h"\n', 1),
    ("layers", "src/info/log/Upward.h", '#pragma once\n\n#include "info/Report.h"\n', 3),
    ("layers", "src/core/backup/Phase.cpp", '#include "core/backup/phase/Copy.h"\n', 1),
    ("layers", "src/common/Lost.cpp", '#include "common/Thing.h"\n#include "common/Void.h"\n', 2),
    ("layers", "src/common/Beside.cpp", '#include "Thing.h"\n', 1),
    ("layers", "src/common/Around.cpp", '#include "common/../info/log/Level.h"\n', 1),
    ("layers", "src/misc/New.cpp", "int fresh();\n", 1),
    ("layers", "src/Loose.cpp", "int loose();\n", 1),
    ("layers", "platform/module/Module.cpp", '\n#include "common/Thing.h"\n', 2),
    ("layers", "platform/module/Module.cpp", '#include "os/../common/Thing.h"\n', 1),
    ("layers", "src/os/Upward.cpp", '#include "common/Thing.h"\n', 1),
    ("layers", "lab/tool/Memory.cpp", '#include "os/Memory.h"\n', 1),
    ("layers", "lab/tool/Tool.cpp", '#include "../../src/common/Thing.h"\n', 1),
    ("picture", "docs/architecture.md", PICTURE.replace(" common/json ", " common/else "),
     7 + LAYERS[::-1].index("common/json")),
    ("picture", "docs/architecture.md", PICTURE.replace(f" {LAYERS[0]:20} words\n", ""), 1),
    ("picture", "docs/architecture.md", PICTURE.replace("  |\n", " top\n"), 7),
    ("picture", "docs/architecture.md", PICTURE.replace("```\n\n", " new\n```\n\n"), 7 + len(LAYERS)),
    ("picture", "docs/architecture.md", "# A\n", 1),
    ("includes", "docs/includes.svg", edges_comment([("src/info", "src/common")]), 1),
    ("wrapped", "src/common/Disk.cpp", "// A disk.\n#include <iscsi/iscsi.h>\n", 2),
    ("wrapped", "tests/unit/Disk.cpp", "#include <iscsi/scsi-lowlevel.h>\n", 1),
    ("guards", "src/common/Bare.h", "\nint bare();\n", 2),
    ("guards", "src/common/Old.h", "#ifndef OLD_H\n#define OLD_H\n#endif\n", 1),
    ("guards", "src/common/Late.h", "#include <string>\n#pragma once\n", 1),
    ("guards", "src/common/Empty.h", "// Nothing.\n", 1),
    ("labels", "src/common/Mute.h", "#pragma once\n\nclass IStore {\n" + INTERFACE, 3),
    ("labels", "src/common/Half.h",
     "#pragma once\n\n" + DOCUMENTED.replace("Threads", "Waits") + "class IStore {\n" + INTERFACE, 7),
    ("labels", "src/common/Pattern.h",
     "#pragma once\n\n/// Owns: it.\ntemplate <typename Item>\nclass IStore {\n" + INTERFACE, 5),
    ("labels", "tools/common/Plain.h",
     "#pragma once\n\n/// Plain.\nclass Plain {\n    int one = 1;\n};\n", 4),
    ("labels", "src/common/Final.h", "#pragma once\n\nclass Final final : public Base {};\n", 3),
    ("leftovers", "src/common/Note.cpp", "\n// TO" "DO: think\n", 2),
    ("leftovers", "scripts/note.py", "A = 1 # FIX" "ME\n", 1),
    ("leftovers", "notes.txt", "X" "XX\n", 1),
    ("leftovers", "docs/note.md", "text\n\nHA" "CK\n", 3),
    ("leftovers", "merge.txt", "<<<" "<<<< HEAD\n", 1),
    ("leftovers", "src/common/Off.cpp", "#if 0\nint off();\n#endif\n", 1),
    ("leftovers", "src/common/Call.cpp", "int call() {\n    // thing();\n    return 1;\n}\n", 2),
    ("leftovers", "src/common/Assign.cpp", "// const int count = 1;\n", 1),
    ("leftovers", "src/common/Branch.cpp", "// if (count > 1) {\n", 1),
    ("leftovers", "src/common/Return.cpp", "// return count;\n", 1),
    # Texts that the rule has to refuse: they are written to the trees that are checked, and never run.
    ("leftovers", "tests/unit/Off.cpp",
     "TEST(Thing, DISABLED_Off) {\n    EXPECT_TRUE(a());\n}\n", 1), # bait for the lint, never run
    ("leftovers", "tests/unit/Skip.cpp",
     "void skip() {\n    GTEST_SKIP();\n}\n", 2), # bait for the lint, never run
    ("leftovers", "tests/skip.py",
     "import pytest\n\npytest.skip('later')\n", 3), # bait for the lint, never run
    ("leftovers", "tests/mark.py",
     "import pytest\n@pytest.mark.xfail\ndef one():\n    return 1\n", 2), # bait for the lint, never run
    ("leftovers", "scripts/call.py", "A = 1\n# print(A)\n", 2),
    ("leftovers", "scripts/branch.py", "A = 1\n# if A > 1:\n", 2),
    ("whitespace", "notes.txt", "one\ntwo \n", 2),
    ("whitespace", "last.txt", "one\ntwo", 2),
    ("whitespace", "src/common/Tab.cpp", "// A\ttab.\n", 1),
    ("assertions", "tests/unit/Idle.cpp", "\nTEST(Idle, Test) {\n    thing();\n}\n", 2),
    ("assertions", "tests/unit/Fine.cpp", "TEST_F(Idle, Test) {\n    SUCCEED();\n}\n", 1),
    ("assertions", "tests/unit/Said.cpp", "TEST_P(Idle, Test) {\n    // EXPECT_EQ is not here.\n}\n", 1),
    ("assertions", "tests/test_idle.py", "\ndef test_idle():\n    print(1)\n", 2),
    ("assertions", "tests/test_class.py", "class TestIdle:\n    def test_idle(self):\n        print(1)\n", 2),
    ("resources", "src/common/New.cpp", "int* made() {\n    return new int(1);\n}\n", 2),
    ("resources", "src/common/Delete.cpp", "void gone(int* it) {\n    delete it;\n}\n", 2),
    ("resources", "src/common/Malloc.cpp", "void* made() {\n    return std::malloc(1);\n}\n", 2),
    ("resources", "src/common/Free.cpp", "void gone(void* it) {\n    free(it);\n}\n", 2),
    ("resources", "src/common/Close.cpp", "void gone(int it) {\n    ::close(it);\n}\n", 2),
    ("resources", "src/common/Goto.cpp", "void loop() {\nagain:\n    goto again;\n}\n", 3),
    ("resources", "src/common/Mute.cpp", "void gone(int* it) {\n    delete it; // NOLINT(resources)\n}\n", 2),
    ("logging", "src/common/Said.cpp",
     'void say() {\n    logger.log(level::info, reason("said"),\n               "all "\n'
     '               "of it");\n}\n', 2),
    ("shell", "lab/broken.sh", "if true; then\n", 2),
    ("shell", "lab/unquoted.sh", "rm -f $1\n", 1),
    ("executables", "scripts/plain", "#!/bin/sh\ntrue\n", 1),
    ("executables", "lab/plain.py", "#!/usr/bin/python3\n", 1),
    ("executables", ".ci/plain", "#!/bin/bash\ntrue\n", 1),
    ("python", "scripts/broken.py", "A = 1\nB = (\n", 2),
    ("python", "scripts/unused.py", "\nimport os\n", 2),
    ("python", "tools/program", "#!/usr/bin/python3\nprint(missing)\n", 2),
    ("words", "notes.txt", "one\ncd /ho" "me/somebody\n", 2),
    ("words", "scripts/place.py", 'A = "/wo' 'rk/main"\n', 1),
    ("columns", "scripts/wide.py", f'A = "{LONG_TEXT}{LONG_TEXT}"\n', 1),
    ("columns", "src/common/Wide.cpp", f"// clang-format off\n// {LONG_TEXT}{LONG_TEXT}\n", 2),
    ("markdown", "docs/links.md", "one\nsee [two](two.md)\n", 2),
    ("markdown", "docs/images.md", "![three](../src/common/Thing.h) ![four](four.png)\n", 1),
]

# Texts that almost break a rule.
HARMLESS = [
    ("src/os/FileDescriptor.cpp", "void gone(int it) {\n    ::close(it);\n}\n"),
    ("src/common/Owner.cpp", "void gone(int* it) {\n    delete it; // NOLINT(resources): C made it\n}\n"),
    ("src/common/Words.cpp", '// A new file; free(d), closed.\nconst char* text = "new goto free(x)";\n'),
    ("src/common/Members.h", "#pragma once\n\nstruct Members {\n    Members(const Members&) = delete;\n"
                             "    void close(int how);\n    void free();\n};\n"),
    ("src/common/IPAddress.h",
     "#pragma once\n\n" + DOCUMENTED + "// NOLINTNEXTLINE(bugprone-copy)\nclass IPAddress {\n"
     "    class Nested {};\n    int bits = 0;\n};\n"),
    ("src/common/Store.h", "#pragma once\n\nclass Store : public IStore {};\n"),
    ("src/common/Failure.h", "#pragma once\n\nclass Failure : public std::runtime_error {};\n"),
    ("src/common/Forward.h", "#pragma once\n\nclass IStore;\n"),
    ("src/common/Quote.cpp", '// #include "app/Main.h" is upward.\nconst char* text = R"(\n#if 0\n)";\n'),
    ("platform/module/Module.cpp", '#include "os/Memory.h"\n'),
    ("src/common/Memory.cpp", '#include "os/Memory.h"\n'),
    ("src/core/transport/Libiscsi.h", "#pragma once\n\n#include <iscsi/iscsi.h>\n"),
    ("tests/unit/Helper.cpp", "TEST(Thing, Helper) {\n    expectOne(thing());\n}\n"),
    ("tests/test_raises.py", "import pytest\n\n\ndef test_it():\n    with pytest.raises(OSError):\n"
                             "        open('')\n"),
    ("tests/test_helper.py", "from thing import wait_until_up\n\n\ndef test_it():\n    wait_until_up()\n"),
    ("scripts/prose.py", "# A value: what it is (see above);\n# return value\n# for example:\nA = 1\n"),
    ("scripts/address.py", f'A = "https://example.org/{LONG_TEXT}{LONG_TEXT}"\n'),
    ("src/common/Saying.cpp", 'void say() {\n    logger.log(level::info, "%d", 1);\n}\n'),
    ("docs/code.md", "```\n[a](b.md)\n```\nand `[c](d.md)`\n"),
]

# Rules that other tests of this file cover.
ELSEWHERE = {"tidy"}


def picture_includes(root):
    """As they are in a tree, so that no other rule's case breaks that rule too."""
    (root / "docs/includes.svg").write_text(edges_comment(edges_of(Tree(root))) + "<svg/>\n")


def make_clean(root):
    write_tree(root, CLEAN)
    (root / "scripts/run").chmod(0o755)
    picture_includes(root)
    shutil.copy(ROOT / ".clang-format", root)
    return root


@pytest.fixture
def tree(tmp_path):
    return make_clean(tmp_path)


@pytest.fixture(scope="module")
def found(tmp_path_factory):
    """The findings in the file of each entry of BROKEN. Entries with different file names share a tree."""
    found_in = {}
    waiting = BROKEN
    while waiting:
        root = make_clean(tmp_path_factory.mktemp("broken"))
        together = {case[1]: case for case in waiting}
        write_tree(root, {path: case[2] for path, case in together.items()})
        if "docs/includes.svg" not in together:
            picture_includes(root)
        status, findings = lint(root, "--fast")
        assert status == 1
        assert {path for path, *_ in findings} <= set(together)
        for path, case in together.items():
            found_in[case] = {finding[:3] for finding in findings if finding[0] == path}
        waiting = [case for case in waiting if case not in found_in]
    return found_in


def test_a_clean_tree_passes(tree):
    assert lint(tree, "--fast") == (0, [])


def test_a_clean_tree_is_reported_in_one_line(tree):
    done = subprocess.run([LINT, "--root", tree, "--fast"], capture_output=True, text=True)
    assert re.fullmatch(r"lint: \d+ rules, \d+ files, no findings\n", done.stdout)


@pytest.mark.parametrize("case", BROKEN, ids=[f"{case[0]}-{case[1]}" for case in BROKEN])
def test_a_broken_rule_is_found(found, case):
    rule, path, _, line = case
    assert found[case] == {(path, str(line), rule)}


def test_what_breaks_no_rule_passes(tree):
    write_tree(tree, dict(HARMLESS))
    picture_includes(tree)
    assert lint(tree, "--fast") == (0, [])


def test_every_rule_is_proved():
    listed = subprocess.run([LINT, "--list"], capture_output=True, text=True, check=True).stdout.split()
    assert {rule for rule, *_ in BROKEN} | ELSEWHERE == set(listed)


def test_a_chosen_rule_runs_alone(tree):
    write_tree(tree, {"notes.txt": "one \n", "docs/links.md": "[two](two.md)\n"})
    assert [finding[2] for finding in lint(tree, "markdown")[1]] == ["markdown"]
    assert [finding[2] for finding in lint(tree, "whitespace")[1]] == ["whitespace"]


def test_a_corpus_may_hold_any_bytes(tree):
    write_tree(tree, {"tests/fuzz/corpus/thing/seed": "one \ntwo"})
    assert lint(tree, "whitespace")[1] == []


def test_ignored_files_of_a_repository_are_left_alone(tree):
    write_tree(tree, {".gitignore": "made.txt\n", "made.txt": "one \n", "new.txt": "two \n"})
    subprocess.run(["git", "init", "--quiet", tree], check=True)
    assert {finding[0] for finding in lint(tree, "--fast")[1]} == {"new.txt"}


def test_format_lists_and_mends_what_differs(tree):
    write_tree(tree, {"src/common/Odd.cpp": "int odd() {\n  return 1;\n}\n"})
    check = [FORMAT, "--root", tree, "--check"]
    refused = subprocess.run(check, capture_output=True, text=True)
    assert (refused.returncode, refused.stdout) == (1, "src/common/Odd.cpp\n")
    subprocess.run([FORMAT, "--root", tree], check=True)
    assert (tree / "src/common/Odd.cpp").read_text() == "int odd() {\n    return 1;\n}\n"
    assert subprocess.run(check).returncode == 0


@pytest.mark.parametrize("rule, tool", [("format", "clang-format-19"), ("shell", "shellcheck")])
def test_a_tool_that_is_missing_passes_nothing(tree, rule, tool):
    """Another release of the tool isn't accepted either."""
    programs = tree / "programs"
    programs.mkdir()
    for name in ("git", "bash", "python3"):
        (programs / name).symlink_to(shutil.which(name))
    (programs / "clang-format").symlink_to(shutil.which("clang-format-19"))
    done = subprocess.run([LINT, "--root", tree, rule], capture_output=True, text=True,
                          env={"PATH": str(programs)})
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == f"lint: nothing is checked without {tool}, which scripts/deps installs\n"
