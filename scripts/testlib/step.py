"""One command of a test run, with its output in a file."""

import os
import re
import shutil
import signal
import subprocess
import time
from dataclasses import dataclass, field
from pathlib import Path

from testlib.count import count

TAIL_BYTES = 4096


@dataclass
class Step:
    name: str
    command: list
    nice: int = 0
    reports: Path = None    # the folder of the JUnit reports that the command writes
    is_test: bool = False   # counts as one test, as it writes no reports
    progress: Path = None   # the file in which the command says "N/M", if not its output
    shown: str = ""         # a pattern of lines of the output that are shown also if all is well
    seconds: int = field(default=0, init=False)
    cpu_seconds: int = field(default=0, init=False)
    passed: int = field(default=0, init=False)
    failed: int = field(default=0, init=False)

    def start(self, root, log):
        self.log = log
        if self.reports:
            shutil.rmtree(self.reports, ignore_errors=True)
        self.begin = time.monotonic()
        with open(log, "wb") as output:
            # A process group of its own, so that it can be ended with all its children, but no session of its
            # own: many kernels share the processors among sessions first, and then `nice` has no effect
            # between steps.
            self.process = subprocess.Popen(["nice", "-n", str(self.nice), *self.command], cwd=root,
                                            stdin=subprocess.DEVNULL, stdout=output,
                                            stderr=subprocess.STDOUT, process_group=0)

    def wait(self):
        """Waits for the end of the command. Returns whether it succeeded."""
        _, status, usage = os.wait4(self.process.pid, 0)
        self.process.returncode = status = os.waitstatus_to_exitcode(status)
        self.seconds = int(time.monotonic() - self.begin)
        self.cpu_seconds = int(usage.ru_utime + usage.ru_stime)
        self._count(status)
        return status == 0

    def end(self):
        """Ends the command and everything that it has started."""
        try:
            os.killpg(self.process.pid, signal.SIGTERM)
        except ProcessLookupError:
            pass

    def state(self):
        """How long the command has run, and how far it is if it says so."""
        seconds = f"{self.name} {time.monotonic() - self.begin:.0f} s"
        said = re.findall(r"\b\d+/\d+\b", self._tail())
        return f"{seconds} ({said[-1]})" if said else seconds

    def _tail(self):
        try:
            with open(self.progress or self.log, "rb") as file:
                file.seek(max(0, os.fstat(file.fileno()).st_size - TAIL_BYTES))
                return file.read().decode(errors="replace")
        except OSError:
            return ""

    def _count(self, status):
        """A command that fails without a failed test in its reports, for example by a crash, is one
        failure."""
        if self.reports:
            self.passed, self.failed = count(self.reports.glob("*.xml"))
        elif self.is_test and status == 0:
            self.passed = 1
        if status != 0 and self.failed == 0:
            self.failed = 1
