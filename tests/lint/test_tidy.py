"""Each check of clang-tidy is active, and scripts/lint remembers only clean sources."""

import json
import re
import shutil
import subprocess

import pytest

from lint_tree import ROOT, lint, write_tree

from lintlib.joined import groups_of_sources
from lintlib.tree import Tree


class TidyTree:
    """A tree with the project's own .clang-tidy files, whose sources are all in the compile commands."""

    def __init__(self, root):
        self.root = root
        for path in (".clang-format", ".clang-tidy", "tests/.clang-tidy"):
            (root / path).parent.mkdir(exist_ok=True)
            shutil.copy(ROOT / path, root / path)

    def write(self, **files):
        paths = {name: name.replace("__", "/").replace("_", ".") for name in files}
        write_tree(self.root, {paths[name]: text for name, text in files.items()})
        commands = [{"directory": str(self.root), "file": str(source),
                     "command": f"c++ -std=c++20 -Wall -Wshadow=local -Werror -I{self.root}/src -c {source}"}
                    for source in sorted(self.root.rglob("*.cpp"))]
        write_tree(self.root, {"build/debug/compile_commands.json": json.dumps(commands)})

    def findings(self, *arguments):
        """(path, line, name of the check) of each finding."""
        status, found = lint(self.root, "tidy", *arguments)
        assert status == (1 if found else 0)
        assert all(rule == "tidy" for _, _, rule, _ in found)
        return [(path, int(line), re.search(r"\[(.+)\]$", message)[1]) for path, line, _, message in found]


@pytest.fixture
def tidy(tmp_path):
    return TidyTree(tmp_path)


USE_AFTER_MOVE = """\
#include <string>
#include <utility>

std::size_t lengthOf(std::string& text) {
    const std::string taken = std::move(text);
    return taken.size() + text.size();
}
"""


def long_function(lines):
    """A function whose body has this many lines between its braces."""
    return "void use(int number);\n\nvoid longOne() {\n" + "    use(1);\n" * lines + "}\n"


def test_tidy_passes_a_clean_source(tidy):
    tidy.write(src__A_cpp="int one() {\n    return 1;\n}\n")
    assert tidy.findings() == []


def test_tidy_refuses_a_use_after_move(tidy):
    tidy.write(src__A_cpp=USE_AFTER_MOVE)
    assert ("src/A.cpp", 6, "bugprone-use-after-move") in tidy.findings()


def test_tidy_refuses_functions_of_more_than_sixty_lines(tidy):
    tidy.write(src__A_cpp=long_function(59))
    assert tidy.findings() == []
    tidy.write(src__A_cpp=long_function(61))
    assert tidy.findings() == [("src/A.cpp", 3, "readability-function-size")]


@pytest.mark.parametrize("check, line, text", [
    ("clang-diagnostic-error", 1, "int broken() { return missing; }\n"),
    ("bugprone-unused-return-value", 4,
     "#include <unistd.h>\n\nvoid skip(int file, char* byte) {\n    read(file, byte, 1);\n}\n"),
    ("clang-diagnostic-thread-safety-analysis", 9,
     "struct __attribute__((capability(\"mutex\"))) Mutex {};\n\nstruct Count {\n    Mutex mutex;\n"
     "    int value __attribute__((guarded_by(mutex))) = 0;\n};\n\nint valueOf(const Count& count) {\n"
     "    return count.value;\n}\n"),
    ("cppcoreguidelines-avoid-non-const-global-variables", 1, "int counter = 0;\n"),
    ("cppcoreguidelines-pro-type-reinterpret-cast", 2,
     "int read(const char* text) {\n    return *reinterpret_cast<const int*>(text);\n}\n"),
    ("cppcoreguidelines-special-member-functions", 1,
     "struct Owner {\n    ~Owner();\n};\n\nOwner::~Owner() {}\n"),
    ("clang-diagnostic-reserved-identifier", 1, "void _Reserved();\n"),
    ("google-explicit-constructor", 2, "struct Wrapper {\n    Wrapper(int number);\n};\n"),
    ("readability-braces-around-statements", 2, "int sign(int number) {\n    if (number < 0)\n"
                                                "        return -1;\n    return 1;\n}\n"),
    ("readability-else-after-return", 4, "int sign(int number) {\n    if (number < 0) {\n        return -1;\n"
                                         "    } else {\n        return 1;\n    }\n}\n"),
    ("readability-identifier-naming", 1, "class lower_one {};\n"),
    ("readability-identifier-naming", 1, "void UpperOne();\n"),
    ("readability-identifier-naming", 2, "struct Point {\n    int x_position;\n};\n"),
    ("concurrency-mt-unsafe", 3, "#include <cstring>\n\nconst char* words() { return strerror(1); }\n"),
    ("clang-analyzer-core.NullDereference", 3,
     "int zero() {\n    const int* nothing = nullptr;\n    return *nothing;\n}\n"),
])
def test_tidy_check_is_on(tidy, check, line, text):
    """Even if clang-tidy checks other sources in the same run."""
    tidy.write(src__A_cpp="int one() {\n    return 1;\n}\n", src__B_cpp=text,
               src__C_cpp="int three() {\n    return 3;\n}\n")
    findings = tidy.findings()
    assert ("src/B.cpp", line, check) in findings
    assert {path for path, _, _ in findings} == {"src/B.cpp"}


@pytest.mark.parametrize("check, line, text, other", [
    ("misc-unused-using-decls", 3, "#include <optional>\n\nusing std::nullopt;\n",
     "#include <optional>\n\nusing std::nullopt;\n\nstd::optional<int> none() {\n    return nullopt;\n}\n"),
    ("misc-unused-alias-decls", 3, "#include <cstddef>\n\nnamespace library = std;\n",
     "#include <cstddef>\n\nnamespace library = std;\n\nlibrary::size_t none() {\n    return 0;\n}\n"),
    ("clang-analyzer-core.NullDereference", 4,
     "int read(const int* number) {\n    if (number == nullptr) {\n"
     "    }\n    return *number;\n}\n",
     "int read(const int* number);\n\nint one() {\n    const int it = 1;\n    return read(&it);\n}\n"),
    ("readability-duplicate-include", 2, "#include <cstddef>\n#include <cstddef>\n", "#include <cstddef>\n"),
    ("clang-diagnostic-unused-const-variable", 2, "namespace {\nconst int three = 3;\n} // namespace\n",
     "namespace {\nconst int four = 4;\n} // namespace\n\nint eight() {\n    return four + four;\n}\n"),
])
def test_tidy_excuses_no_source_by_what_another_does(tidy, check, line, text, other):
    tidy.write(src__A_cpp=other, src__B_cpp=text)
    assert tidy.findings() == [("src/B.cpp", line, check)]
    tidy.write(src__A_cpp=text, src__B_cpp=other)
    assert tidy.findings() == [("src/A.cpp", line, check)]


def test_tidy_lets_names_of_two_sources_be_the_same(tidy):
    text = "namespace {\nconst int two = 2;\n} // namespace\n\nint %s() {\n    return two;\n}\n"
    tidy.write(src__A_cpp=text % "one", src__B_cpp=text % "other")
    assert tidy.findings() == []


@pytest.mark.parametrize("one, other, are_together", [
    ("const int two = 2;\n", "const int three = 3;\n", True),
    ("const int two = 2;\n", "const int two = 2;\n", False),
    ("struct Two {};\n", "const int Two = 2;\n", False),
    ("    const int two = 2;\n", "const int two = 2;\n", True),
    ("using Bytes = Text;\n", "using Bytes = Text;\n", True),
    ("using Bytes = Text;\n", "using Bytes = Numbers;\n", False),
    ("namespace layout = head;\n", "namespace layout = tail;\n", False),
    ("namespace layout {\n", "namespace layout {\n", True),
])
def test_sources_are_together_but_for_those_that_define_one_name(tmp_path, one, other, are_together):
    write_tree(tmp_path, {"src/A.cpp": one, "src/B.cpp": other})
    groups = groups_of_sources(Tree(tmp_path).cpp, {})
    assert [len(group) for group in groups] == ([2] if are_together else [1, 1])


def test_tidy_lets_laid_down_names_pass(tidy):
    tidy.write(src__A_cpp="class bad_request {};\nclass generic_library_error {};\nclass cancel_op {};\n"
                          "class qparam {};\nvoid RunQuery();\nclass Db {\n    void RunUpdate();\n};\n")
    assert tidy.findings() == []


def test_tidy_knows_a_system_call_from_its_namesake(tidy):
    tidy.write(src__A_cpp="#include <istream>\n\nvoid skip(std::istream& file, char* byte) {\n"
                          "    file.read(byte, 1);\n}\n")
    assert tidy.findings() == []


def test_tidy_looks_into_headers(tidy):
    tidy.write(src__A_h="#pragma once\n\nclass lower_one {};\n", src__A_cpp='#include "A.h"\n')
    assert tidy.findings() == [("src/A.h", 3, "readability-identifier-naming")]


def test_tidy_has_milder_rules_for_tests(tidy):
    text = "#include <gtest/gtest.h>\n\nTEST(Thing, IsOne) {\n" + "    EXPECT_EQ(1, 1);\n" * 61 + "}\n"
    tidy.write(tests__ATest_cpp=text)
    assert tidy.findings() == []
    tidy.write(tests__ATest_cpp=USE_AFTER_MOVE)
    assert ("tests/ATest.cpp", 6, "bugprone-use-after-move") in tidy.findings()


def test_tidy_remembers_what_was_clean(tidy):
    tidy.write(src__A_cpp="int one() {\n    return 1;\n}\n")
    assert tidy.findings() == []
    remembered = [file.stat().st_mtime_ns for file in (tidy.root / "build/.tidy-cache").iterdir()]
    assert tidy.findings() == []
    assert len(remembered) == 1
    assert remembered == [file.stat().st_mtime_ns for file in (tidy.root / "build/.tidy-cache").iterdir()]


def test_tidy_remembers_no_finding_as_clean(tidy):
    tidy.write(src__A_cpp=USE_AFTER_MOVE)
    assert tidy.findings() == tidy.findings() != []


def test_tidy_memory_hides_no_new_finding_in_the_source(tidy):
    tidy.write(src__A_cpp="int one() {\n    return 1;\n}\n")
    assert tidy.findings() == []
    tidy.write(src__A_cpp=USE_AFTER_MOVE)
    assert ("src/A.cpp", 6, "bugprone-use-after-move") in tidy.findings()


def test_tidy_memory_hides_no_new_finding_in_a_header_that_a_header_includes(tidy):
    tidy.write(src__A_cpp='#include "b/B.h"\n', src__b__B_h='#pragma once\n#include "b/C.h"\n',
               src__b__C_h="#pragma once\n")
    assert tidy.findings() == []
    tidy.write(src__b__C_h="#pragma once\nclass lower_one {};\n")
    assert tidy.findings() == [("src/b/C.h", 2, "readability-identifier-naming")]


def test_tidy_memory_ends_with_a_change_of_the_checks(tidy):
    tidy.write(src__A_cpp="int one() {\n    return 7;\n}\n")
    assert tidy.findings() == []
    configuration = tidy.root / ".clang-tidy"
    configuration.write_text(configuration.read_text().replace("  -*,\n",
                                                               "  -*,\n  readability-magic-numbers,\n"))
    assert tidy.findings() == [("src/A.cpp", 2, "readability-magic-numbers")]


def test_tidy_checks_what_has_changed_and_with_all_everything(tidy):
    tidy.write(src__A_cpp=USE_AFTER_MOVE, src__B_cpp='#include "B.h"\n', src__B_h="#pragma once\n",
               src__C_cpp='#include "D.h"\n\nNumber seven() {\n    return 7;\n}\n',
               src__D_cpp='#include "D.h"\n', src__D_h="#pragma once\n\nusing Number = int;\n",
               _gitignore="/build/\n")
    git = ["git", "-C", tidy.root, "-c", "user.name=A", "-c", "user.email=a@example.org"]
    subprocess.run([*git, "init", "--quiet"], check=True)
    subprocess.run([*git, "add", "."], check=True)
    subprocess.run([*git, "commit", "--quiet", "--message", "All"], check=True)
    assert tidy.findings() == []
    tidy.write(src__B_h="#pragma once\n\nclass lower_one {};\n")
    assert tidy.findings() == [("src/B.h", 3, "readability-identifier-naming")]
    assert {path for path, _, _ in tidy.findings("--all")} == {"src/A.cpp", "src/B.h"}
    tidy.write(src__B_h="#pragma once\n", src__D_h="#pragma once\n")
    assert tidy.findings() == [("src/C.cpp", 3, "clang-diagnostic-error")] # D.cpp has no findings
