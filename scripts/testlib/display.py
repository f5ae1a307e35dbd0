"""What a run of the tests prints: a line for each step, and for a person a last line that is rewritten."""

import re
import shutil
import sys
import threading
import time

ERASE_LINE = "\r\x1b[K"


class Display:
    """Keeps what the steps of all lanes print apart. Any thread may call."""

    def __init__(self, total, output=sys.stdout):
        self.total = total
        self.output = output
        self.is_watched = output.isatty()
        self.begin = time.monotonic()
        self.running = []
        self.done = []
        self.lock = threading.Lock()

    def started(self, step):
        with self.lock:
            self.running.append(step)

    def ended(self, step, is_well):
        text = step.log.read_text(errors="replace")
        lines = [line for line in text.splitlines()
                 if not is_well or (step.shown and re.search(step.shown, line))]
        lines.append(f"{step.name}: {'' if is_well else 'FAILED after '}{step.seconds} s")
        if step.passed or step.failed:
            lines.append(f"    {step.passed} passed, {step.failed} failed")
        with self.lock:
            self.running.remove(step)
            self.done.append(step)
            self._erase()
            print("\n".join(lines), file=self.output, flush=True)

    def refresh(self):
        """Shows what runs at the moment, to a person."""
        if not self.is_watched:
            return
        with self.lock:
            states = ", ".join(step.state() for step in self.running)
            seconds = time.monotonic() - self.begin
            line = f"{len(self.done)} of {self.total} steps, {seconds:.0f} s: {states}"
            self._erase()
            print(line[:shutil.get_terminal_size().columns - 1], end="", file=self.output, flush=True)

    def finish(self):
        """Prints the totals. Returns whether nothing has failed."""
        self._erase()
        failed = sum(step.failed for step in self.done)
        passed = sum(step.passed for step in self.done)
        print(f"{passed} passed, {failed} failed", file=self.output, flush=True)
        return failed == 0

    def _erase(self):
        if self.is_watched:
            print(ERASE_LINE, end="", file=self.output)
