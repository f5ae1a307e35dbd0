"""The fast rules: each is a function from a tree to its findings, listed in RULES at the end."""

import ast
import io
import os
import re
import subprocess
import sys
import tokenize

from lintlib import clang
from lintlib.layers import check_includes, check_layers, check_picture
from lintlib.tree import block_from, line_of

# A class at the left margin, which others use. Attributes may stand before its name.
CLASS = re.compile(r"^class (?:\w+\((?:[^()]|\([^()]*\))*\) )?(?P<name>\w+)(?: final)?"
                   r"(?: : (?P<bases>[^{;]*))? \{", re.MULTILINE)
DOCUMENTED_BY_ITS_BASE = re.compile(r"\bI[A-Z]\w*|[Ee]rror|[Ee]xception|invalid_argument")

# Libraries whose own headers can't be included directly, and the header to include instead.
WRAPPED = {"iscsi/": "core/transport/Libiscsi.h"}

# The only file that closes plain descriptors.
DESCRIPTOR_OWNER = "src/os/FileDescriptor.cpp"

LONGEST_LINE = 110

# Inputs of parsers, kept byte for byte.
CORPORA = "tests/fuzz/corpus"


def check_format(tree):
    """C++ is formatted as the pinned clang-format formats it."""
    if not tree.cpp:
        return
    done = subprocess.run([clang.FORMAT, "--dry-run", "--Werror", *(file.path for file in tree.cpp)],
                          cwd=tree.root, capture_output=True, text=True, check=False)
    seen = set()
    for path, line in re.findall(r"^(.+?):(\d+):\d+: error:", done.stderr, re.MULTILINE):
        if path not in seen:
            seen.add(path)
            yield finding_at(tree, path, int(line), "format", "run scripts/format")
    if done.returncode != 0 and not seen:
        raise RuntimeError(f"{clang.FORMAT} failed: {done.stderr.strip()}")


def check_wrapped(tree):
    """A library that has a wrapper header of ours is included only by that."""
    for file in tree.cpp:
        for line, _, path in file.includes:
            for folder, wrapper in WRAPPED.items():
                if path.startswith(folder) and file.path != f"src/{wrapper}":
                    yield file.finding(line, "wrapped", f"{path} is included by {wrapper} only")


def check_guards(tree):
    """A header begins with #pragma once."""
    for file in tree.cpp:
        first = re.search(r"\S[^\n]*", file.without_comments)
        if file.is_header and (first is None or not re.fullmatch(r"#pragma once\s*", first[0])):
            line = line_of(file.text, first.start()) if first else 1
            yield file.finding(line, "guards", "the first line of code is not #pragma once")


def check_labels(tree):
    """The doc comment of an interface, and of every class that isn't nested, says what it owns, which threads
    may call it and how it fails.

    A class that implements an interface needs no such lines of its own, and an exception none at all.
    """
    for file in tree.cpp:
        for line, name in documented_classes(file) if file.is_header else []:
            comment = comment_above(file.lines, line)
            missing = [label for label in ("Owns:", "Threads:", "Fails:") if label not in comment]
            if missing:
                yield file.finding(line, "labels", f"the comment of {name} lacks {', '.join(missing)}")


def documented_classes(file):
    """(line, name) of each class whose comment has to have all labels."""
    for match in re.finditer(r"\b(?:class|struct)\s+(I[A-Z]\w*)[^;{()]*(?=\{)", file.code):
        if re.search(r"\)[^;{}()]*=\s*0\s*;", block_from(file.code, match.end()) or ""):
            yield line_of(file.text, match.start()), match[1]
    if file.is_below("src", "platform", "tools"):
        for match in CLASS.finditer(file.code):
            if not DOCUMENTED_BY_ITS_BASE.search(match["bases"] or ""):
                yield line_of(file.text, match.start()), match["name"]


def comment_above(lines, line):
    """The doc comment that ends above a line; lines of a template head may be in between."""
    index = line - 2
    while index >= 0 and re.match(r"\s*(template\b|requires\b|\[\[|// NOLINT)", lines[index]):
        index -= 1
    end = index
    while index >= 0 and re.match(r"\s*(///|/\*\*|\*)", lines[index]):
        index -= 1
    return "\n".join(lines[index + 1:end + 1])


def check_leftovers(tree):
    """Nothing is left over from working on the code: notes, switched-off code and tests, conflict markers."""
    for file in tree.files:
        yield from matching_lines(file, file.lines, "leftovers", [
            (r"\b(TO[D]O|FIX[M]E|X[X]X|HA[C]K)\b", "an open note"),
            (r"^(<{7}|>{7}|\|{7}) ", "a conflict marker")])
        if file.is_cpp:
            yield from matching_lines(file, file.code.splitlines(), "leftovers", [
                (r"^\s*#\s*if\s+(0|false)\b", "code that is switched off"),
                (r"\bDISABLED_", "a test that is switched off"),
                (r"\bGTEST_SKIP\b", "a test that skips itself")])
            yield from commented_out_cpp(file)
        if file.is_python:
            yield from commented_out_python(file)
            yield from skipped_python(file)


def matching_lines(file, lines, rule, patterns):
    for number, line in enumerate(lines, 1):
        for pattern, message in patterns:
            if re.search(pattern, line):
                yield file.finding(number, rule, message)


CPP_STATEMENT = re.compile(
    r"(return|throw|delete|goto|using|break|continue)\b[^`]*;"
    r"|(\w[\w:<>,*&\[\]]* ){0,3}[\w.:>\[\]-]+ [-+*/|&]?= [^`]*;"
    r"|([\w:<>*&,]+ )?\w[\w.:>-]*\([^`]*\);"
    r"|(\} )?(if|for|while|switch|catch|else|do|try)\b( \(.*\))? ?\{"
    r"|#\s*include [\"<].*[\">]")


def commented_out_cpp(file):
    for number, (line, code) in enumerate(zip(file.lines, file.without_comments.splitlines()), 1):
        comment = re.match(r"\s*//(?![/!])\s*(.*?)\s*$", line)
        if comment and not code.strip() and CPP_STATEMENT.fullmatch(comment[1]):
            yield file.finding(number, "leftovers", "code that is commented out")


def commented_out_python(file):
    try:
        tokens = list(tokenize.generate_tokens(io.StringIO(file.text).readline))
    except (SyntaxError, tokenize.TokenError):
        return # the python rule reports it
    for token in tokens:
        if token.type == tokenize.COMMENT and is_python_statement(token.string.lstrip("#").strip()):
            yield file.finding(token.start[0], "leftovers", "code that is commented out")


def is_python_statement(text):
    try:
        body = ast.parse(text + " pass" if text.endswith(":") else text).body
    except (SyntaxError, ValueError):
        return False
    if len(body) != 1:
        return False
    statement = body[0]
    if isinstance(statement, (ast.Expr, ast.Return, ast.Raise)): # single words of prose are expressions, too
        return isinstance(getattr(statement, "value", getattr(statement, "exc", None)), ast.Call)
    return isinstance(statement, (ast.Assign, ast.AugAssign, ast.ImportFrom, ast.If, ast.For, ast.While,
                                  ast.With, ast.FunctionDef, ast.ClassDef))


def skipped_python(file):
    skipping = re.compile(r"pytest(\.mark)?\.(skip|skipif|xfail|importorskip)")
    for node in walk_python(file):
        if isinstance(node, ast.Attribute) and skipping.fullmatch(ast.unparse(node)):
            yield file.finding(node.lineno, "leftovers", f"a test that is switched off by {node.attr}")


def walk_python(file):
    try:
        return list(ast.walk(ast.parse(file.text)))
    except (SyntaxError, ValueError): # the python rule reports it
        return []


def check_whitespace(tree):
    """No trailing white space, no tabs in C++, and every file ends with a newline."""
    for file in tree.files:
        if file.is_below(CORPORA):
            continue
        yield from matching_lines(file, file.lines, "whitespace", [(r"\s$", "trailing white space")])
        if file.is_cpp:
            yield from matching_lines(file, file.lines, "whitespace", [(r"\t", "a tab")])
        if file.text and not file.text.endswith("\n"):
            yield file.finding(len(file.lines), "whitespace", "the last line has no end")


def check_assertions(tree):
    """Every test asserts something."""
    for file in tree.cpp:
        tests = re.compile(r"^[ \t]*(?:TYPED_)?TEST(?:_F|_P)?\s*\(([^)]*)\)", re.MULTILINE)
        for match in tests.finditer(file.code):
            body = block_from(file.code, match.end()) or ""
            if not re.search(r"\b((EXPECT|ASSERT)_\w+|FAIL|ADD_FAILURE|(expect|check)\w*)\s*\(", body):
                name = ".".join(part.strip() for part in match[1].split(","))
                line = line_of(file.text, match.start(1))
                yield file.finding(line, "assertions", f"{name} asserts nothing")
    for file in tree.python:
        for node in walk_python(file) if file.is_below("tests") else []:
            is_test = isinstance(node, ast.FunctionDef) and node.name.startswith("test_")
            if is_test and not any(is_python_assertion(part) for part in ast.walk(node)):
                yield file.finding(node.lineno, "assertions", f"{node.name} asserts nothing")


def is_python_assertion(node):
    if isinstance(node, ast.Call):
        name = ast.unparse(node.func)
        return name == "pytest.raises" or re.match(r"(check_|expect_|assert_|wait_until)",
                                                   name.split(".")[-1]) is not None
    return isinstance(node, ast.Assert)


def check_resources(tree):
    """Memory and descriptors of the agent have owners: nothing is allocated or freed by hand.

    Where an owner has to do so, the line says why: `// NOLINT(resources): reason`.
    """
    for file in tree.cpp:
        if not file.is_below("src"):
            continue
        for offset, what in naked_resources(file):
            line = line_of(file.text, offset)
            if not re.search(r"//\s*NOLINT\(resources\): \S", file.lines[line - 1]):
                yield file.finding(line, "resources", f"naked {what}")


def naked_resources(file):
    for match in re.finditer(r"(?<!operator )(?<!<)\b(new|goto)\b(?!\s*\()", file.code):
        yield match.start(), match[1]
    for match in re.finditer(r"\bdelete\b", file.code):
        if not re.search(r"(=|\boperator)\s*$", file.code[:match.start()]):
            yield match.start(), "delete"
    functions = re.compile(r"([\w:]*::)?\b(malloc|calloc|realloc|free|strdup|close)\s*\((?!\s*\))")
    for match in functions.finditer(file.code):
        is_function = match[1] in (None, "::", "std::") and is_call(file.code[:match.start()].rstrip())
        if is_function and not (match[2] == "close" and file.path == DESCRIPTOR_OWNER):
            yield match.start(2), f"{match[2]}()"


def is_call(before):
    """Whether a name after this text is called, and is neither declared nor a member of an object."""
    if before.endswith(("&&", "||")) or re.search(r"\b(return|else|do)$", before):
        return True
    return not before.endswith(("*", "&", ".", "->", ">", "~")) and not re.search(r"\w$", before)


def check_logging(tree):
    """`Logger::log` is for printf directives; a message without any is written to a LogEntry."""
    call = re.compile(r"\.log\(\s*(?:\w+::)*level::\w+,\s*(?:(?:\w+::)*reason\([^)]*\),\s*)?"
                      r'(?:"(?:\\.|[^"\\%])*"\s*)+\)')
    for file in tree.cpp:
        for match in call.finditer(file.without_comments) if file.is_below("src", "tools") else []:
            yield file.finding(line_of(file.text, match.start()), "logging", "no directive: use a LogEntry")


def check_shell(tree):
    """Shell scripts parse, and shellcheck finds nothing."""
    correct = []
    for file in (file for file in tree.files if file.is_shell):
        done = run(["bash", "-n", file.path], tree)
        if done.returncode == 0:
            correct.append(file.path)
        for line, message in re.findall(r"line (\d+): (.*)", done.stderr):
            yield file.finding(int(line), "shell", message)
    if correct:
        done = run(["shellcheck", "--format=gcc", "--external-sources", *correct], tree)
        for path, line, message in re.findall(r"^(.+?):(\d+):\d+: (.*)", done.stdout, re.MULTILINE):
            yield finding_at(tree, path, int(line), "shell", message)


def check_executables(tree):
    """A program of scripts/, lab/ or .ci/ can be executed."""
    for file in tree.files:
        if file.is_below("scripts", "lab", ".ci") and file.shebang and not os.access(file.absolute, os.X_OK):
            yield file.finding(1, "executables", "a program without the executable bit")


def check_python(tree):
    """Python parses, and pyflakes, where it is installed, finds nothing."""
    correct = []
    for file in tree.python:
        try:
            compile(file.text, file.path, "exec", dont_inherit=True)
            correct.append(file.path)
        except (SyntaxError, ValueError) as error:
            yield file.finding(getattr(error, "lineno", None) or 1, "python", str(error))
    if correct and run([sys.executable, "-m", "pyflakes", "--version"], tree).returncode == 0:
        done = run([sys.executable, "-m", "pyflakes", *correct], tree)
        for path, line, message in re.findall(r"^(.+?):(\d+):\d+:? (.*)", done.stdout, re.MULTILINE):
            yield finding_at(tree, path, int(line), "python", message)


def check_words(tree):
    """No file mentions a path on its author's machine."""
    for file in tree.files:
        yield from matching_lines(file, file.lines, "words",
                                  [(r"(?<![\w.])/(home|work)/", "a path of one developer's machine")])


def check_columns(tree):
    """Lines of C++ and Python fit the width, unless they hold a URL."""
    for file in tree.files:
        for number, line in enumerate(file.lines, 1) if file.is_cpp or file.is_python else []:
            if len(line) > LONGEST_LINE and not re.search(r"https?://", line):
                yield file.finding(number, "columns", f"{len(line)} columns, {LONGEST_LINE} is the limit")


def check_markdown(tree):
    """Relative links lead to files."""
    for file in tree.files:
        if not file.name.endswith(".md"):
            continue
        prose = re.sub(r"^```.*?^```|`[^`\n]*`", lambda match: re.sub(r"[^\n]", " ", match[0]), file.text,
                       flags=re.MULTILINE | re.DOTALL)
        for match in re.finditer(r"\]\(<?([^)>\s#]+)[^)]*\)", prose):
            if not re.match(r"[a-z]+:", match[1]) and not (file.absolute.parent / match[1]).exists():
                yield file.finding(line_of(prose, match.start()), "markdown", f"there is no {match[1]}")


def run(command, tree):
    return subprocess.run(command, cwd=tree.root, capture_output=True, text=True, check=False)


def finding_at(tree, path, line, rule, message):
    return next(file for file in tree.files if file.path == path).finding(line, rule, message)


RULES = {
    "format": check_format,
    "layers": check_layers,
    "picture": check_picture,
    "includes": check_includes,
    "wrapped": check_wrapped,
    "guards": check_guards,
    "labels": check_labels,
    "leftovers": check_leftovers,
    "whitespace": check_whitespace,
    "assertions": check_assertions,
    "resources": check_resources,
    "logging": check_logging,
    "shell": check_shell,
    "executables": check_executables,
    "python": check_python,
    "words": check_words,
    "columns": check_columns,
    "markdown": check_markdown,
}
