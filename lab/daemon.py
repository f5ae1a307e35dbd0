"""The backup agent's daemon as the tests and the lab run it, inside lab/namespace.

    with Daemon(foreground=False) as daemon:
        daemon.wait_until_ready()
        ...

The process's PID is known all the time. A daemon that has gone into the background is adopted by this
process, which makes itself a subreaper, so its exit status can be read like that of any child.
"""
import ctypes
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile

from lab.services import wait_until

ROOT = pathlib.Path(__file__).resolve().parents[1]
BASE = pathlib.Path("/etc/tolvu/bek")
CERTIFICATES = BASE / "certs"
SCRIPTS = BASE / "pps"
CONFIG = BASE / "config.json"
DATABASE = BASE / "agent.sqlite"
LOGS = BASE / "logs"
PID_FILE = pathlib.Path("/var/run/bekd.pid")

READY_LINE = "Agent daemon started"
SECONDS = 20

PR_SET_CHILD_SUBREAPER = 36


class DaemonError(AssertionError):
    """The daemon didn't do what was waited for, or printed something unexpected on standard error."""


def program(name="bekd"):
    """The path of a program in the build folder that BEKD_BUILD names."""
    return ROOT / os.environ.get("BEKD_BUILD", "build/release") / name


def require_private_site():
    """Exits if this program wasn't started by lab/namespace. /etc is a mount point only there, on no ordinary
    machine."""
    if os.getuid() != 0:
        sys.exit("this must be run as root")
    if not all(map(os.path.ismount, ("/etc", "/run", "/tmp"))):
        sys.exit("this would write to the machine's own files; run it by lab/namespace")


def stored_log():
    """The content of all log files, oldest first."""
    return "".join(path.read_text(errors="replace") for path in sorted(LOGS.glob("bek_*.log")))


def stored_pid():
    """The PID in the PID file, or None."""
    try:
        return int(PID_FILE.read_text())
    except (FileNotFoundError, NotADirectoryError, ValueError):
        return None


def adopt_orphans():
    """Makes this process a subreaper, so that daemons whose parents have ended become its children."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "prctl")


def children():
    """The PIDs of this process's children, including those that have ended but haven't been reaped."""
    found = set()
    for path in pathlib.Path("/proc").glob("[0-9]*/stat"):
        try:
            fields = path.read_text().rpartition(")")[2].split()
        except (FileNotFoundError, ProcessLookupError):
            continue
        if int(fields[1]) == os.getpid():
            found.add(int(path.parent.name))
    return found


class Daemon:
    """One run of the daemon. `wrapper` is the command of a program that starts the daemon. Further keywords
    go to subprocess.Popen."""

    def __init__(self, *arguments, foreground=True, display="-d", wrapper=(), environment=None, **options):
        self.foreground = foreground
        self.command = [*wrapper, program(), *([display] if foreground else []), *arguments]
        self.environment = environment or {}
        self.options = options
        self.expected_errors = []
        self.pid = None
        self.status = None
        self._launcher = None
        self._old_log = 0

    def start(self):
        """Starts the daemon. A background daemon has left its parent, or has ended, when this returns."""
        self.spawn()
        self.settle()
        return self

    def spawn(self):
        """Only starts the process: a background daemon hasn't left its parent yet."""
        adopt_orphans()
        self._output = tempfile.TemporaryFile()
        self._errors = tempfile.TemporaryFile()
        self._old_log = len(stored_log())
        self._others = children()
        options = {"stdin": subprocess.DEVNULL, "stdout": self._output, "stderr": self._errors, "cwd": ROOT,
                   **self.options}
        self._launcher = subprocess.Popen(self.command, env={**os.environ, **self.environment}, **options)
        self.pid = self._launcher.pid

    def settle(self):
        """Waits until a background daemon has left the process that was started. The daemon is then a child
        of this process, the only one that is new."""
        if self.foreground:
            return
        try:
            self._launcher.wait(SECONDS)
        except subprocess.TimeoutExpired as error:
            self._launcher.kill()
            self.status = self._launcher.wait()
            raise DaemonError(f"did not go into the background:\n{self.description}") from error
        adopted = children() - self._others
        if adopted:
            self.pid = adopted.pop()
        else:
            self.status = self._launcher.returncode

    def poll(self):
        """The exit status, the negative signal number after a signal, or None while the process runs."""
        if self.status is None and self.foreground:
            self.status = self._launcher.poll()
        elif self.status is None:
            ended, status = os.waitpid(self.pid, os.WNOHANG)
            self.status = os.waitstatus_to_exitcode(status) if ended else None
        return self.status

    @property
    def launcher_status(self):
        """The exit status of the process that was started, which isn't the daemon if that is in the
        background."""
        return self._launcher.poll()

    @property
    def is_running(self):
        return self.poll() is None

    def wait(self, seconds=SECONDS):
        """Waits for the daemon to end; returns its exit status."""
        try:
            wait_until(lambda: not self.is_running, seconds, "end of the daemon")
        except TimeoutError as error:
            raise DaemonError(f"{error}\n{self.description}") from error
        return self.status

    def send(self, number):
        if self.is_running:
            os.kill(self.pid, number)

    def stop(self, number=signal.SIGTERM):
        """Ends the daemon by a signal, as an administrator does; returns its exit status."""
        self.send(number)
        return self.wait()

    def kill(self):
        self.send(signal.SIGKILL)
        return self.wait()

    def kill_all(self):
        """Kills whatever `spawn` has started, whether it is still the launcher or already the daemon."""
        if self._launcher.poll() is None:
            self._launcher.kill()
        self.settle()
        return self.kill()

    @staticmethod
    def _read(file):
        size = os.fstat(file.fileno()).st_size
        return os.pread(file.fileno(), size, 0).decode(errors="replace")

    @property
    def output(self):
        """The standard output so far."""
        return self._read(self._output)

    @property
    def errors(self):
        """The standard error so far."""
        return self._read(self._errors)

    @property
    def log(self):
        """The text that was added to the log files since this daemon was started."""
        return stored_log()[self._old_log:]

    @property
    def description(self):
        return (f"{' '.join(map(str, self.command))}: PID {self.pid}, status {self.status}\n"
                f"--- standard output\n{self.output}--- standard error\n{self.errors}--- log\n{self.log}")

    def wait_for(self, condition, what, seconds=SECONDS):
        """Waits until `condition()` is true. Fails at once if the daemon has ended and the condition is still
        false."""
        def decided():
            was_running = self.is_running # checked first: an ended daemon writes nothing more
            value = condition()
            if not value and not was_running:
                raise DaemonError(f"ended before {what}\n{self.description}")
            return value

        try:
            return wait_until(decided, seconds, what)
        except TimeoutError as error:
            raise DaemonError(f"{error}\n{self.description}") from error

    def wait_for_output(self, text):
        self.wait_for(lambda: text in self.output, f"{text!r} on standard output")

    def wait_for_log(self, text):
        self.wait_for(lambda: text in self.log, f"{text!r} in the log")

    def wait_until_ready(self):
        """Waits for the ready line: on standard output, or in the log for a background daemon, which has no
        output."""
        if self.foreground and "stdout" not in self.options:
            self.wait_for_output(READY_LINE)
        else:
            self.wait_for_log(READY_LINE)
        return self

    def expect_errors(self, pattern):
        """Accepts lines on standard error that match this regular expression as a whole."""
        self.expected_errors.append(re.compile(pattern))

    def unexpected_errors(self):
        return [line for line in self.errors.splitlines()
                if not any(pattern.fullmatch(line) for pattern in self.expected_errors)]

    def finish(self):
        """Ends a daemon that is expected to be in order: it still runs and stops with status 0, or was ended
        before, and standard error shows only expected lines. Raises DaemonError otherwise."""
        if self._launcher is None:
            return
        try:
            if self.is_running and self.stop() != 0:
                raise DaemonError(f"stopped with {self.status}\n{self.description}")
            if self.unexpected_errors():
                raise DaemonError(f"unexpected on standard error\n{self.description}")
        finally:
            self.discard()

    def discard(self):
        """Kills the daemon if it still runs, and closes the output files."""
        if self._launcher is not None:
            if self.is_running:
                self.kill()
            self._output.close()
            self._errors.close()
            self._launcher = None

    def __enter__(self):
        try:
            return self.start()
        except BaseException:
            self.discard()
            raise

    def __exit__(self, kind, *_exception):
        if kind is None:
            self.finish()
        else:
            self.discard()
