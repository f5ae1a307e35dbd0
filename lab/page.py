"""The blocks of a page, and running them as they are printed.

    for block in blocks(PAGE.read_text()):
        if block.kind == PYTHON:
            print(failure_of_program(block, directory))

A block of Python is a whole program. In a block without a language each line behind "$ " is a command, which
goes on behind a backslash; the other lines are among what it prints, where numbers and identifiers may
differ. What is no command has the comment `<!-- block: text -->` above it, and what takes a machine or a
Ceph cluster `<!-- block: machine -->` or `<!-- block: ceph -->`.
"""
import dataclasses
import pathlib
import re
import subprocess

PAGE = pathlib.Path(__file__).resolve().parent / "README.md"
COMMANDS, TEXT, MACHINE, CEPH, PYTHON = "", "text", "machine", "ceph", "python"
BLOCK = re.compile(r"^(?:<!-- block: (\w+) -->\n)?```(\w*)\n(.*?)^```$", re.MULTILINE | re.DOTALL)
VARYING = re.compile(r"\b[0-9a-f]{8}(?:-[0-9a-f]{4}){3}-[0-9a-f]{12}\b|\b[0-9A-F]{16}\b|\d+(?:\.\d+)?")
SECONDS = 600


@dataclasses.dataclass(frozen=True)
class Block:
    """`kind` is one of the above, `language` what stands behind its fence."""

    kind: str
    language: str
    text: str

    def commands(self):
        """Pairs of a command and the lines that it prints."""
        found = []
        for line in self.text.splitlines():
            if line.startswith("$ "):
                found.append((line[2:], []))
            elif found and found[-1][0].endswith("\\"):
                found[-1] = (f"{found[-1][0]}\n{line}", [])
            elif not found:
                raise ValueError(f"printed by no command: {line}")
            else:
                found[-1][1].append(line)
        return found


def blocks(text):
    return [Block(kind or (PYTHON if language == PYTHON else COMMANDS), language, content)
            for kind, language, content in BLOCK.findall(text)]


def alike(line):
    """What has to be the same in a line each time."""
    return " ".join(VARYING.sub("#", line).split())


def missing(shown, printed):
    """The first line shown that isn't printed; None if there is none."""
    found = set(map(alike, printed.splitlines()))
    return next((line for line in shown if alike(line) not in found), None)


def run(command, directory, **options):
    """Exit status, and what was printed on either stream."""
    done = subprocess.run(command, cwd=directory, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False, timeout=SECONDS, **options)
    return done.returncode, done.stdout


def failure_of_commands(block, directory, **options):
    """Runs them in turn, as somebody types them. Returns what has gone another way than is shown; empty if
    nothing has."""
    for command, shown in block.commands():
        status, printed = run(["bash", "-c", command], directory, stdin=subprocess.DEVNULL, **options)
        line = missing(shown, printed)
        if status != 0 or line is not None:
            return f"{command}\nstatus {status}; not printed: {line}; but:\n{printed}"
    return ""


def failure_of_program(block, directory, **options):
    """Runs it in a namespace of its own. Returns what it has printed if it has failed; empty if not."""
    status, printed = run(["lab/namespace", "/usr/bin/python3", "-B", "-"], directory, input=block.text,
                          **options)
    return f"status {status}\n{printed}" if status != 0 else ""
