"""The namespaces of a machine, and the first process, whose end also ends them."""
import contextlib
import os
import pathlib
import select
import signal
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[2]
ENCLOSE = pathlib.Path(__file__).with_name("enclose")


def start_time(pid):
    """The start time of a process, which tells it from a later one with the same PID; None if it has
    ended."""
    with contextlib.suppress(FileNotFoundError, ProcessLookupError):
        fields = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="utf-8", errors="replace")
        fields = fields.rpartition(")")[2].split()
        return None if fields[0] in "ZX" else int(fields[19])
    return None


class Enclosure:
    """All processes inside end when `kill` is called, and when the process that made it ends, unless it is
    `detached`."""

    def __init__(self, pid, start, process=None):
        self.pid = pid
        self.start = start
        self._process = process

    @classmethod
    def make(cls, command, directory, tap, detached):
        """Runs a command inside, in `directory`; its output goes to the file "console" there."""
        tie = [] if detached else ["setpriv", "--pdeathsig", "KILL", "--"]
        with open(directory / "console", "ab") as console:
            process = subprocess.Popen(
                [*tie, "unshare", "--mount", "--net", "--pid", "--fork", "--kill-child", "--mount-proc", "--",
                 ENCLOSE, directory, ROOT, tap, *command],
                stdin=subprocess.DEVNULL, stdout=console, stderr=console, start_new_session=detached)
        return cls(process.pid, start_time(process.pid), process)

    def enter(self, *command):
        """The command line that runs another command in the enclosure's network and PID namespaces; kill()
        ends it too."""
        spaces = f"/proc/{self.pid}/ns"
        return ["nsenter", f"--net={spaces}/net", f"--pid={spaces}/pid_for_children", "--", *command]

    def is_running(self):
        return self.start is not None and start_time(self.pid) == self.start

    def kill(self):
        """Kills all processes inside; `wait` waits until they have ended."""
        with contextlib.suppress(ProcessLookupError, FileNotFoundError):
            if self.is_running():
                path = pathlib.Path(f"/proc/{self.pid}/task/{self.pid}/children")
                first = path.read_text(encoding="ascii").split()
                os.kill(int(first[0]) if first else self.pid, signal.SIGKILL)

    def wait(self, seconds):
        """Waits; returns whether the enclosure has ended in time. Its process ends last, so its files don't
        change any more."""
        with contextlib.suppress(ProcessLookupError):
            descriptor = os.pidfd_open(self.pid)
            try:
                if self.is_running() and not select.select([descriptor], [], [], seconds)[0]:
                    return False
            finally:
                os.close(descriptor)
        if self._process:
            self._process.wait()
        return True
