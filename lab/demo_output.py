"""The output of the demo: commands as a person would type them, their output, texts and tables."""
import re
import shlex
import subprocess
import textwrap

from lab.daemon import ROOT

WIDTH = 100
SECONDS = 60
PREFIX = "  | "


class StepFailed(Exception):
    """A step didn't show what it should; the text says what it showed instead."""


def check(condition, text):
    if not condition:
        raise StepFailed(text)


def show(text):
    for line in str(text).splitlines():
        for piece in textwrap.wrap(line, WIDTH - len(PREFIX), subsequent_indent=" " * 8,
                                   break_on_hyphens=False):
            print(PREFIX + piece, flush=True)


def show_command(words):
    """Prints a command as one would type it. A long command is broken between options, and each option keeps
    its value."""
    line = "  $"
    for part in re.findall(r"-\S+ [^-]\S*|\S+", shlex.join(map(str, words))):
        if len(line) + len(part) > WIDTH - 3:
            print(line + " \\")
            line = "       "
        line += " " + part
    print(line, flush=True)


def show_table(rows, prefix=PREFIX, numbers=()):
    """Prints rows of texts as a table; the columns in `numbers` are right-aligned."""
    widths = [max(map(len, column)) for column in zip(*rows)]
    for row in rows:
        cells = (cell.rjust(width) if column in numbers else cell.ljust(width)
                 for column, (cell, width) in enumerate(zip(row, widths)))
        print(prefix + "  ".join(cells).rstrip(), flush=True)


def run(*command):
    """Shows a command and runs it; returns its output, of both streams, and its exit status."""
    show_command(command)
    done = subprocess.run([ROOT / command[0] if "/" in command[0] else command[0], *command[1:]],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
                          timeout=SECONDS)
    return done.stdout, done.returncode


def appliance(*arguments, status=0):
    """Runs lab/appliance; returns what it printed."""
    text, found = run("lab/appliance", *arguments)
    check(found == status, f"exit status {found}, not {status}: {text}")
    return text
