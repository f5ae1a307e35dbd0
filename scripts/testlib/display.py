"""The output of a test run: a line for each step and, on a terminal, a last line that is rewritten."""

import re
import shutil
import sys
import threading
import time

ERASE_LINE = "\r\x1b[K"
HEARTBEAT_SECONDS = 60 # without a terminal, between two lines that say what is running


class Display:
    """Keeps the output of parallel steps apart. Any thread may call it. `what` names what is run."""

    def __init__(self, total, output=sys.stdout, what="all", heartbeat=HEARTBEAT_SECONDS):
        self.total = total
        self.what = what
        self.heartbeat = heartbeat
        self.output = output
        self.is_watched = output.isatty()
        self.begin = time.monotonic()
        self.last_line = self.begin
        self.running = []
        self.done = []
        self.lock = threading.Lock()

    def started(self, step):
        with self.lock:
            self.running.append(step)
            if not self.is_watched:
                self._say(f"{step.name} begins")

    def ended(self, step, is_well):
        text = step.log.read_text(errors="replace")
        lines = [line for line in text.splitlines()
                 if not is_well or (step.shown and re.search(step.shown, line))]
        lines.append(f"{step.name}: {'' if is_well else 'FAILED after '}{step.seconds} s, "
                     f"{step.cpu_seconds} s of the processors")
        if step.passed or step.failed:
            lines.append(f"    {step.passed} passed, {step.failed} failed")
        with self.lock:
            self.running.remove(step)
            self.done.append(step)
            self._erase()
            self._say("\n".join(lines))

    def refresh(self):
        """Shows what is running: on a terminal in the last line, elsewhere in a line now and then."""
        with self.lock:
            if self.is_watched:
                self._erase()
                print(self._state()[:shutil.get_terminal_size().columns - 1], end="", file=self.output,
                      flush=True)
            elif time.monotonic() >= self.last_line + self.heartbeat:
                self._say(self._state())

    def finish(self):
        """Prints what was run, and the totals. Returns whether nothing has failed."""
        self._erase()
        failed = sum(step.failed for step in self.done)
        passed = sum(step.passed for step in self.done)
        self._say(f"{self.what}: {len(self.done)} of {self.total} steps in {self._seconds()} s\n"
                  f"{passed} passed, {failed} failed")
        return failed == 0

    def _state(self):
        states = ", ".join(step.state() for step in self.running)
        return f"{len(self.done)} of {self.total} steps, {self._seconds()} s: {states}"

    def _seconds(self):
        return round(time.monotonic() - self.begin)

    def _say(self, text):
        self.last_line = time.monotonic()
        print(text, file=self.output, flush=True)

    def _erase(self):
        if self.is_watched:
            print(ERASE_LINE, end="", file=self.output)
