"""The progress of a backup: bars where somebody looks on, a line for each change elsewhere.

    with shown_progress() as progress:
        progress(appliance.status(identifier).content)
"""
import contextlib
import sys

from rich.console import Console
from rich.progress import BarColumn, DownloadColumn, Progress, TextColumn, TimeElapsedColumn

UNKNOWN_SIZE = (1 << 64) - 1


@contextlib.contextmanager
def shown_progress(stream=None):
    """Gives a function that takes the status of the backup, as the agent answers it."""
    stream = stream or sys.stdout
    if not stream.isatty():
        yield Lines(stream).show
        return
    with Progress(TextColumn("{task.description}"), BarColumn(), DownloadColumn(binary_units=True),
                  TimeElapsedColumn(), TextColumn("{task.fields[state]}"),
                  console=Console(file=stream)) as bars:
        yield Bars(bars).show


def total_size(transfer):
    """None while the agent doesn't know it, which it tells by the largest number there is."""
    return None if transfer["totalSize"] == UNKNOWN_SIZE else transfer["totalSize"]


class Bars:
    """One bar a volume."""

    def __init__(self, bars):
        self._bars = bars
        self._tasks = {}

    def show(self, status):
        for entry in status["details"] or ():
            name, transfer = entry["volume"], entry["transfer"]
            if name not in self._tasks:
                self._tasks[name] = self._bars.add_task(name, state="")
            self._bars.update(self._tasks[name], completed=transfer["bytesTransferred"],
                              total=total_size(transfer), state=f"{entry['type']} {entry['status']}")


class Lines:
    """One line a volume, whenever it has changed."""

    def __init__(self, stream):
        self._stream = stream
        self._shown = {}

    def show(self, status):
        for entry in status["details"] or ():
            transfer = entry["transfer"]
            size = total_size(transfer)
            line = (f"{entry['volume']} {entry['type']} {entry['status']} "
                    f"{transfer['bytesTransferred']}/{'?' if size is None else size}")
            if self._shown.get(entry["volume"]) != line:
                self._shown[entry["volume"]] = line
                print(line, file=self._stream, flush=True)
