"""The code blocks of a document page, run as they are printed.

A block marked `sh` holds commands. If a block marked `text` follows, it has lines that the commands print, in
order; there, "..." matches anything, and any number, UUID or serial number matches another of its kind. A
block marked `python` is a whole program. A further word names what the block needs: `sh machine`, `python
ceph`. All other blocks are for reading only.

    page = Page(ROOT / "docs" / "first-hour.md")
    check_blocks(page["Pairing"] + page["The first backup"], execute)

`execute` runs a script, and returns its status and output; `shell_in` makes one. Blocks that are run together
share a shell.
"""
import pathlib
import re
import subprocess
import typing

ROOT = pathlib.Path(__file__).resolve().parents[1]
SH, PYTHON, PRINTED = "sh", "python", "text"
MACHINE, CEPH = f"{SH} machine", f"{PYTHON} ceph"
PIECE = re.compile(r"^#+ (?P<heading>.*)$|^```(?P<kind>.*)\n(?P<text>(?:.*\n)*?)```$", re.MULTILINE)
UUID = r"\b[0-9a-f]{8}(?:-[0-9a-f]{4}){3}-[0-9a-f]{12}\b"
SERIAL_NUMBER = r"\b[0-9A-F]{16}\b"
VARYING = re.compile(rf"({UUID})|({SERIAL_NUMBER})|(\d+)")
COMMAND = "--- command\n"
SECONDS = 600


class Block(typing.NamedTuple):
    """A block: the words after its fence, its text, the heading above it, and the lines that it prints."""

    kind: str
    text: str
    heading: str = ""
    printed: tuple = ()


class Page:
    """The blocks of a page, in order."""

    def __init__(self, path):
        text = pathlib.Path(path).read_text(encoding="utf-8")
        self.blocks = []
        heading, fences = "", 0
        for piece in PIECE.finditer(text):
            if piece["heading"] is not None:  # A comment of a command is none: it is part of a block.
                heading = piece["heading"]
            else:
                fences += 2
                self._add(Block(piece["kind"], piece["text"], heading))
        if len(re.findall("^```", text, re.MULTILINE)) != fences:
            raise ValueError(f"{path}: a block without an end")

    def _add(self, block):
        if block.kind != PRINTED:
            self.blocks.append(block)
            return
        if not self.blocks or self.blocks[-1].kind.split()[:1] != [SH] or self.blocks[-1].printed:
            raise ValueError(f"printed by no command: {block.text}")
        self.blocks[-1] = self.blocks[-1]._replace(printed=tuple(block.text.splitlines()))

    def __getitem__(self, heading):
        """The commands below a heading. There must be some, otherwise the page has changed."""
        found = [block for block in self.of(SH) if block.heading == heading]
        assert found, f"no commands below {heading!r}"
        return found

    @property
    def headings(self):
        """The headings of all blocks with commands."""
        return list(dict.fromkeys(block.heading for block in self.of(SH)))

    def of(self, kind):
        return [block for block in self.blocks if block.kind == kind]


def _alike(line):
    """The part of a line that must be the same each time."""
    return " ".join(VARYING.sub(lambda found: f"#{found.lastindex}", line).split())


def missing_line(expected, printed):
    """The first expected line that isn't printed after the previous one; None if all are."""
    lines = iter([_alike(line) for line in printed.splitlines()])
    for line in filter(str.strip, expected):
        pattern = re.compile(".*".join(map(re.escape, _alike(line).split("..."))))
        if not any(map(pattern.fullmatch, lines)):
            return line
    return None


def _is_whole(text):
    """Whether a text is complete for a shell. bash only warns of a here-document that ends with the
    script."""
    done = subprocess.run(["bash", "-n"], input=text, stderr=subprocess.PIPE, text=True, check=False)
    return done.returncode == 0 and not done.stderr and not text.endswith("\\\n")


def commands_in(text):
    """Splits a text into commands, each with all of its lines."""
    commands, rest = [], ""
    for line in text.splitlines(keepends=True):
        rest += line
        if _is_whole(rest):
            commands.append(rest)
            rest = ""
    if rest:
        raise ValueError(f"no command: {rest}")
    return commands


def script_of(commands):
    """A script that prints a mark before each command, and ends with the first command that fails. `(exit
    $?)` is needed because otherwise a shell goes on after `false && true`."""
    marked = [f"echo -n '{COMMAND}'\n{command}(exit $?)\n" for command in commands]
    return "".join(["set -euo pipefail\n", *marked])


def _outputs(commands, execute):
    """The output of each command. If one fails, raises an error with its output."""
    status, printed = execute(script_of(commands))
    start, *outputs = printed.split(COMMAND)
    if status == 0 and len(outputs) == len(commands):
        return outputs
    command = commands[len(outputs) - 1] if outputs else ""
    raise AssertionError(f"status {status} of\n{command}--- printed\n{[start, *outputs][-1]}")


def check_blocks(blocks, execute):
    """Runs all blocks. The output of each must be what the page says. Returns the output, by block."""
    commands = [commands_in(block.text) for block in blocks]
    outputs = iter(_outputs(sum(commands, []), execute))
    printed = ["".join(next(outputs) for _ in own) for own in commands]
    for block, text in zip(blocks, printed):
        line = missing_line(block.printed, text)
        assert line is None, f"not printed: {line!r}\n--- by\n{block.text}--- but\n{text}"
    return printed


def _run(command, directory, seconds=SECONDS, **options):
    """Runs a command; returns its status and its output on both streams."""
    try:
        done = subprocess.run(command, cwd=directory, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              check=False, timeout=seconds, **options)
    except subprocess.TimeoutExpired as late:
        return f"none after {seconds} s", (late.stdout or b"").decode(errors="replace")
    return done.returncode, done.stdout.decode(errors="replace")


def shell_in(directory, **options):
    """Returns a function that runs a script in `directory`, with an empty standard input."""
    return lambda script: _run(["bash", "-c", script], directory, stdin=subprocess.DEVNULL, **options)


def check_program(block, directory, **options):
    """Runs a program block in a namespace of its own, which the lab in `directory` makes."""
    status, printed = _run(["lab/namespace", "/usr/bin/python3", "-B", "-"], directory,
                           input=block.text.encode(), **options)
    assert status == 0, f"status {status} of\n{block.text}--- printed\n{printed}"
