"""How much of the sources is comment."""

import io
import re
import tokenize
from typing import NamedTuple

WORD = re.compile(r"\S")


class Share(NamedTuple):
    """Lines that aren't blank, and those of them that have a comment or a docstring."""

    lines: int = 0
    commented: int = 0

    @property
    def percent(self):
        return 100 * self.commented / self.lines if self.lines else 0

    def __add__(self, other):
        return Share(self.lines + other.lines, self.commented + other.commented)


def share_of(file):
    commented = comment_lines_of_python(file) if file.is_python else comment_lines_of_cpp(file)
    return Share(sum(1 for line in file.lines if line.strip()), len(commented))


def comment_lines_of_cpp(file):
    without = file.without_comments.splitlines()
    return {number for number, (line, rest) in enumerate(zip(file.lines, without), 1) if line != rest}


def comment_lines_of_python(file):
    """Comments, and strings that are a statement of their own."""
    lines = set()
    begins_statement = True
    for token in tokenize.generate_tokens(io.StringIO(file.text).readline):
        if token.type == tokenize.COMMENT or (token.type == tokenize.STRING and begins_statement):
            lines.update(range(token.start[0], token.end[0] + 1))
        if token.type != tokenize.COMMENT:
            begins_statement = token.type in (tokenize.NEWLINE, tokenize.NL, tokenize.INDENT, tokenize.DEDENT)
    return {number for number in lines if WORD.search(file.lines[number - 1])}


def shares_by_folder(files, depth=2):
    """The share of each folder, the deeper ones counted with the one that contains them."""
    shares = {}
    for file in files:
        folder = "/".join(file.path.split("/")[:-1][:depth])
        shares[folder] = shares.get(folder, Share()) + share_of(file)
    return dict(sorted(shares.items()))
