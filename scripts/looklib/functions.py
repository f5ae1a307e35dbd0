"""The functions of C++ and Python sources and their lengths, as universal-ctags reports them."""

import subprocess
from typing import NamedTuple

CTAGS = ["ctags", "-x", "--languages=C++,Python", "--langmap=C++:.cpp.h,Python:+.py", "--kinds-C++=f",
         "--kinds-Python=fm", "--_xformat=%{input}\t%{line}\t%{end}\t%{name}", "-L", "-", "-f", "-"]
NINE_TENTHS = 0.9


class Function(NamedTuple):
    lines: int
    path: str
    line: int
    name: str


def functions_of(tree):
    """All functions that have a body, longest first."""
    paths = [file.path for file in tree.files if file.is_cpp or file.is_python]
    done = subprocess.run(CTAGS, cwd=tree.root, input="\n".join(paths), capture_output=True, text=True,
                          check=True)
    rows = [line.split("\t") for line in done.stdout.splitlines()]
    found = [Function(int(end) - int(begin) + 1, path, int(begin), name)
             for path, begin, end, name in rows if end.isdigit()]
    return sorted(found, key=lambda function: (-function.lines, function.path, function.line))


def quantile(functions, share):
    """The length that this share of the functions doesn't exceed."""
    return functions[min(len(functions) - 1, int(len(functions) * (1 - share)))].lines if functions else 0
