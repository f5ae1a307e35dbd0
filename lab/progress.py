"""The progress of a backup: bars where somebody looks on, lines elsewhere.

    with shown_progress() as progress:
        progress(appliance.status(identifier).content)
"""
import contextlib
import sys
import time

from rich.console import Console
from rich.filesize import decimal
from rich.progress import BarColumn, DownloadColumn, Progress, TextColumn, TimeElapsedColumn

UNKNOWN_SIZE = (1 << 64) - 1
LARGEST_SIZE = (1 << 63) - 1 # beyond, the estimate has gone below zero, as it may where little has changed
PREPARING = "preparing"
LINE_SECONDS = 1


@contextlib.contextmanager
def shown_progress(stream=None, *, names=None, prefix=""):
    """Gives a function that takes the status of the backup, as the agent answers it. `names` has what to call
    a volume, by its UUID, and `prefix` begins each line."""
    stream = stream or sys.stdout
    if not stream.isatty():
        yield Lines(stream, names or {}, prefix).show
        return
    columns = (TextColumn("{task.description}"), BarColumn(bar_width=20), DownloadColumn(),
               TimeElapsedColumn(), TextColumn("{task.fields[state]}"))
    with Progress(*columns, console=Console(file=stream)) as bars:
        yield Bars(bars, names or {}, prefix).show


def total_size(entry):
    """None where the agent can't tell. An estimate and what has come of it differ, so the end counts."""
    transfer = entry["transfer"]
    if entry["status"] == "finished":
        return transfer["bytesTransferred"]
    return transfer["totalSize"] if transfer["totalSize"] <= LARGEST_SIZE else None


def state_of(entry):
    """What a volume is about. Until its size has been estimated its type is open, too."""
    if entry["status"] == "active" and entry["transfer"]["totalSize"] == UNKNOWN_SIZE:
        return PREPARING
    return f"{entry['type']} {entry['status']}"


class Bars:
    """One bar a volume."""

    def __init__(self, bars, names, prefix):
        self._bars = bars
        self._names = names
        self._prefix = prefix
        self._tasks = {}

    def show(self, status):
        for entry in status["details"] or ():
            volume, transfer = entry["volume"], entry["transfer"]
            if volume not in self._tasks:
                self._tasks[volume] = self._bars.add_task(self._prefix + self._names.get(volume, volume),
                                                          total=None, state="")
            self._bars.update(self._tasks[volume], completed=transfer["bytesTransferred"],
                              total=total_size(entry), state=state_of(entry))


class Lines:
    """One line a volume when its state has changed, and at times while it is copied."""

    def __init__(self, stream, names, prefix):
        self._stream = stream
        self._names = names
        self._prefix = prefix
        self._shown = {} # by volume: the state, the line, and when it was shown

    def show(self, status):
        for entry in status["details"] or ():
            volume, state, size = entry["volume"], state_of(entry), total_size(entry)
            line = f"{self._names.get(volume, volume)} {state}"
            if state != PREPARING:
                line += f", {decimal(entry['transfer']['bytesTransferred'])}"
                line += "" if size is None else f" of {decimal(size)}"
            if self._is_due(volume, state, line):
                self._shown[volume] = (state, line, time.monotonic())
                print(self._prefix + line, file=self._stream, flush=True)

    def _is_due(self, volume, state, line):
        if volume not in self._shown:
            return True
        shown_state, shown_line, shown_at = self._shown[volume]
        return state != shown_state or (line != shown_line and time.monotonic() >= shown_at + LINE_SECONDS)
