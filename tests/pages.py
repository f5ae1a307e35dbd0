"""The commands of a page of the documents, run as they are printed.

A block that is marked `sh` holds commands, and one marked `text` behind it lines that they print, in their
order, where "..." stands for anything, and any number for a number.

    page = Page(ROOT / "docs" / "first-hour.md")
    run_blocks(page["Pairing"] + page["The first backup"], execute)

`execute` runs a script, and returns what it has printed; it raises if a command fails. Blocks that are run
together share a shell. All other blocks of a page are for reading.
"""
import pathlib
import re
import typing

MARK = "--- block"
BLOCK = re.compile(r"^```(\w*)\n(.*?)^```$", re.MULTILINE | re.DOTALL)
HEADING = re.compile(r"^#+ (.*)$", re.MULTILINE)


class Block(typing.NamedTuple):
    """Commands, and lines that they print."""

    commands: str
    printed: list


class Page:
    """The blocks of commands below each heading of a page."""

    def __init__(self, path):
        self._blocks = {}
        heading = ""
        for title, text in self._pieces(pathlib.Path(path).read_text(encoding="utf-8")):
            heading = title
            self._blocks.setdefault(heading, []).extend(_blocks_in(text))

    @staticmethod
    def _pieces(text):
        """Headings and what stands below them; a comment of a command is no heading."""
        plain = BLOCK.sub(lambda block: re.sub(r"[^\n]", " ", block[0]), text)
        starts = [(match.start(), match[1]) for match in HEADING.finditer(plain)]
        ends = [start for start, _ in starts[1:]] + [len(text)]
        return [(title, text[start:end]) for (start, title), end in zip(starts, ends)]

    def __getitem__(self, heading):
        """Those below one heading; there are some, or the page has changed."""
        blocks = self._blocks[heading]
        assert blocks, f"no commands below {heading!r}"
        return blocks

    @property
    def headings(self):
        """Of all that has commands."""
        return [heading for heading, blocks in self._blocks.items() if blocks]


def _blocks_in(text):
    blocks = []
    for kind, content in BLOCK.findall(text):
        if kind == "sh":
            blocks.append(Block(content, []))
        elif kind == "text":
            blocks[-1].printed.extend(content.splitlines())
    return blocks


def _pattern(line):
    """A line of the page as a regular expression."""
    text = re.escape(line.strip()).replace(r"\.\.\.", ".*")
    text = re.sub(r"\d+", lambda _: r"\d+", text)
    return re.compile(re.sub(r"(?:\\ )+", lambda _: r"\s+", text))


def missing_line(expected, printed):
    """The first expected line that isn't printed, behind the one before; None if all are."""
    lines = iter(printed.splitlines())
    for line in expected:
        pattern = _pattern(line)
        if line.strip() and not any(pattern.fullmatch(shown.strip()) for shown in lines):
            return line
    return None


def script_of(blocks):
    """A script that ends with the first command that fails, and marks where each block begins."""
    return "set -euo pipefail\n" + "".join(f"echo '{MARK}'\n{block.commands}" for block in blocks)


def run_blocks(blocks, execute):
    """Runs them all; what each has printed must be what its page says. Returns what was printed, by block."""
    printed = execute(script_of(blocks)).split(f"{MARK}\n")[1:]
    assert len(printed) == len(blocks)
    for block, text in zip(blocks, printed):
        line = missing_line(block.printed, text)
        assert line is None, f"not printed: {line!r}\n--- by\n{block.commands}--- but\n{text}"
    return printed
