"""The progress of a backup: bars on a terminal, lines elsewhere.

    with shown_progress() as progress:
        progress(appliance.status(identifier).content)
"""
import contextlib
import sys
import time

from rich.console import Console
from rich.progress import BarColumn, Progress, ProgressColumn, TextColumn
from rich.table import Column
from rich.text import Text

UNKNOWN_SIZE = (1 << 64) - 1
LARGEST_SIZE = (1 << 63) - 1 # above this, the estimate has fallen below zero, as it can if little has changed
ACTIVE, FINISHED, PREPARING = "active", "finished", "preparing"
LINE_SECONDS = 1
# These widths fit on a terminal of 80 columns, even with terabytes. The first part of a UUID identifies a
# volume.
NAME_WIDTH, BAR_WIDTH = 12, 6
TOTAL = "total"


@contextlib.contextmanager
def shown_progress(stream=None, *, names=None, prefix=""):
    """Yields a function that takes the backup's status, as the agent reports it. `names` maps a volume's UUID
    to the name to show, and `prefix` begins each line."""
    stream = stream or sys.stdout
    if not stream.isatty():
        yield Lines(stream, names or {}, prefix).show
        return
    columns = (TextColumn("{task.description}", markup=False,
                          table_column=Column(max_width=NAME_WIDTH, no_wrap=True, overflow="ellipsis")),
               TextColumn("{task.fields[type]}", table_column=Column(no_wrap=True)),
               BarColumn(bar_width=BAR_WIDTH), Sizes(), Speed(), TimeLeft())
    with Progress(*columns, console=Console(file=stream)) as bars:
        yield Bars(bars, names or {}, prefix).show


def megabytes(count):
    """A number of bytes as people see it here and in the demo: always in megabytes."""
    return f"{count / 1e6:,.1f} MB"


def amount(count, size):
    return megabytes(count) if size is None else f"{megabytes(count)} of {megabytes(size)}"


def total_size(entry):
    """The total size of a volume's backup, None if the agent can't tell. At the end, the bytes transferred
    count, as the estimate may differ."""
    transfer = entry["transfer"]
    if entry["status"] == FINISHED:
        return transfer["bytesTransferred"]
    return transfer["totalSize"] if transfer["totalSize"] <= LARGEST_SIZE else None


def is_preparing(entry):
    """Whether the size hasn't been estimated yet. Until then, the type of the backup is open too."""
    return entry["status"] == ACTIVE and entry["transfer"]["totalSize"] == UNKNOWN_SIZE


def state_of(entry):
    """The state of a volume, as people see it."""
    return PREPARING if is_preparing(entry) else f"{entry['type']} {entry['status']}"


def speed_of(task):
    """The recent speed in bytes a second, or the average if there is too little data. None before there is
    any."""
    seconds = task.finished_time or task.elapsed
    return task.finished_speed or task.speed or (task.completed / seconds if seconds else None)


class NumberColumn(ProgressColumn):
    """A column of numbers: right-aligned, and in one line."""

    def get_table_column(self):
        return Column(justify="right", no_wrap=True)


class Sizes(NumberColumn):
    """The bytes transferred and the total, in whole megabytes from 1 GB on."""

    def render(self, task):
        digits = 0 if max(task.completed, task.total or 0) >= 1e9 else 1
        total = "" if task.total is None else f" of {task.total / 1e6:,.{digits}f}"
        return Text(f"{task.completed / 1e6:,.{digits}f}{total} MB")


class Speed(NumberColumn):
    def render(self, task):
        speed = speed_of(task)
        return Text(f"{speed / 1e6:,.1f} MB/s" if speed else "")


class TimeLeft(NumberColumn):
    """The time left while the backup is active, else its state."""

    def render(self, task):
        if task.fields["state"] != ACTIVE:
            return Text(task.fields["state"])
        speed = speed_of(task)
        if not speed or task.total is None:
            return Text("")
        seconds = round(max(0, task.total - task.completed) / speed)
        return Text(f"{seconds // 3600}:{seconds // 60 % 60:02}:{seconds % 60:02}")


class Bars:
    """One bar for each volume, and one for the total if there are several."""

    def __init__(self, bars, names, prefix):
        self._bars = bars
        self._names = names
        self._prefix = prefix
        self._tasks = {}

    def show(self, status):
        entries = status["details"] or ()
        for entry in entries:
            preparing = is_preparing(entry)
            name = self._names.get(entry["volume"], short(entry["volume"]))
            self._update(entry["volume"], name, "" if preparing else entry["type"],
                         PREPARING if preparing else entry["status"], entry["transfer"]["bytesTransferred"],
                         total_size(entry))
        if len(entries) > 1:
            sizes = [total_size(entry) for entry in entries]
            self._update(TOTAL, TOTAL, "", PREPARING if all(map(is_preparing, entries)) else status["status"],
                         sum(entry["transfer"]["bytesTransferred"] for entry in entries),
                         None if None in sizes else sum(sizes))

    def _update(self, key, name, kind, state, count, total):
        if key not in self._tasks:
            self._tasks[key] = self._bars.add_task(self._prefix + name, start=False, total=None, type="",
                                                   state="")
        if state != PREPARING: # the time begins with the copy
            self._bars.start_task(self._tasks[key])
        self._bars.update(self._tasks[key], completed=count, total=total, type=kind, state=state)


def short(volume):
    """The first part of a UUID. Other names stay as they are."""
    return volume.split("-")[0] if volume.count("-") == 4 else volume


class Lines:
    """Prints a line for a volume when its state has changed, and from time to time while it is copied."""

    def __init__(self, stream, names, prefix):
        self._stream = stream
        self._names = names
        self._prefix = prefix
        self._shown = {} # by volume: the state, the line, and the time when it was shown

    def show(self, status):
        for entry in status["details"] or ():
            volume, state, size = entry["volume"], state_of(entry), total_size(entry)
            line = f"{self._names.get(volume, volume)} {state}"
            if state != PREPARING:
                line += f", {amount(entry['transfer']['bytesTransferred'], size)}"
            if self._is_due(volume, state, line):
                self._shown[volume] = (state, line, time.monotonic())
                print(self._prefix + line, file=self._stream, flush=True)

    def _is_due(self, volume, state, line):
        if volume not in self._shown:
            return True
        shown_state, shown_line, shown_at = self._shown[volume]
        return state != shown_state or (line != shown_line and time.monotonic() >= shown_at + LINE_SECONDS)
