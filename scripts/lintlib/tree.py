"""The files of a tree, and the views of their text that the rules check."""

import argparse
import functools
import os
import re
import subprocess
from pathlib import Path
from typing import NamedTuple

UNLISTED_FOLDERS = {".git", "build", "__pycache__", ".pytest_cache", ".cache"}
# Inputs that no person writes; some of them look like text.
FUZZ_INPUTS = "tests/fuzz/corpus"


class Finding(NamedTuple):
    path: str
    line: int
    rule: str
    message: str

    def __str__(self):
        return f"{self.path}:{self.line}: {self.rule}: {self.message}"


def existing_directory(text):
    """The type of an argument that names the directory of a tree."""
    if not Path(text).is_dir():
        raise argparse.ArgumentTypeError(f"there is no directory {text}")
    return Path(text)


class SourceFile:
    """One text file. Lines are counted from 1, as in messages."""

    def __init__(self, root, path):
        self.path = path
        self.absolute = Path(root) / path
        self.name = self.absolute.name
        self.data = self.absolute.read_bytes()
        self.text = self.data.decode("utf-8", errors="replace")
        self.lines = self.text.splitlines()

    def finding(self, line, rule, message):
        return Finding(self.path, line, rule, message)

    def is_below(self, *folders):
        return any(self.path.startswith(folder + "/") for folder in folders)

    @property
    def shebang(self):
        return self.lines[0] if self.lines and self.lines[0].startswith("#!") else ""

    @property
    def is_header(self):
        return self.name.endswith((".h", ".hpp"))

    @property
    def is_cpp(self):
        return self.is_header or self.name.endswith(".cpp")

    @property
    def is_python(self):
        return self.name.endswith(".py") or "python" in self.shebang

    @property
    def is_shell(self):
        return self.name.endswith(".sh") or re.search(r"\b(ba|da)?sh\b", self.shebang) is not None

    @functools.cached_property
    def without_comments(self):
        return blank(self.text, comments=True)

    @functools.cached_property
    def code(self):
        """C++ text with comments and literals replaced by blanks: every offset stays the same."""
        return blank(self.text, comments=True, literals=True)

    @functools.cached_property
    def includes(self):
        """(line, quote, path) of each #include: the quote is '"' or '<'."""
        pattern = re.compile(r'^[ \t]*#[ \t]*include[ \t]*(["<])([^">\n]+)[">]', re.MULTILINE)
        return [(line_of(self.text, match.start(1)), match[1], match[2])
                for match in pattern.finditer(self.without_comments)]


CPP_LEXEME = re.compile(
    r"(?P<comment>//(?:\\\n|[^\n])*|/\*.*?\*/)"
    r'|(?P<raw>R"(?P<mark>[^()\\\s]{0,16})\(.*?\)(?P=mark)")'
    r'|(?P<string>"(?:\\.|[^"\\\n])*")'
    r"|(?P<character>(?<![0-9a-fA-F])'(?:\\.|[^'\\\n])+')",
    re.DOTALL)


def blank(text, comments=False, literals=False):
    def replace(match):
        chosen = comments if match["comment"] else literals
        return re.sub(r"[^\n]", " ", match[0]) if chosen else match[0]

    return CPP_LEXEME.sub(replace, text)


def line_of(text, offset):
    return text.count("\n", 0, offset) + 1


def block_from(code, start):
    """The text between the first '{' at or after `start` and its partner; None if there is no such pair."""
    begin = code.find("{", start)
    depth = 0
    for match in re.finditer(r"[{}]", code[begin:] if begin >= 0 else ""):
        depth += 1 if match[0] == "{" else -1
        if depth == 0:
            return code[begin + 1:begin + match.start()]
    return None


class Tree:
    """A work tree as git sees it (tracked, or new and not ignored), or all files of a plain directory."""

    def __init__(self, root):
        self.root = Path(root).resolve()
        self.is_repository = self._git("rev-parse", "--show-toplevel") == [str(self.root)]

    @functools.cached_property
    def files(self):
        paths = self._listed() if self.is_repository else self._walked()
        read = [SourceFile(self.root, path) for path in sorted(set(paths)) if self._is_file(path)]
        return [file for file in read if b"\0" not in file.data and not file.is_below(FUZZ_INPUTS)]

    @functools.cached_property
    def cpp(self):
        return [file for file in self.files if file.is_cpp]

    @functools.cached_property
    def python(self):
        return [file for file in self.files if file.is_python]

    def changed(self):
        """The paths that differ from the last commit; all paths in a plain directory."""
        if not self.is_repository:
            return {file.path for file in self.files}
        return {*self._git("diff", "--name-only", "HEAD"), *self._git("ls-files", "-o", "--exclude-standard")}

    def exists(self, path):
        return (self.root / path).exists()

    def _is_file(self, path):
        absolute = self.root / path
        return absolute.is_file() and not absolute.is_symlink()

    def _listed(self):
        return self._git("ls-files", "-co", "--exclude-standard")

    def _walked(self):
        for folder, folders, names in os.walk(self.root):
            folders[:] = [name for name in folders if name not in UNLISTED_FOLDERS]
            for name in names:
                yield os.path.relpath(os.path.join(folder, name), self.root)

    def _git(self, *arguments):
        done = subprocess.run(["git", "-C", self.root, "-c", "core.quotePath=off", *arguments],
                              capture_output=True, text=True, check=False)
        return done.stdout.splitlines() if done.returncode == 0 else []
