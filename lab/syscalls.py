"""Stops a thread of a running program just before, or just after, one of its own system calls, for as long as
a test needs. The other threads go on.

    with Trace(pid, "read", paths=["/dev/tolvu0"]) as trace:
        ...                  # a rehearsal
        calls = trace.lines()
    with Hold(pid, "read", 5, paths=["/dev/tolvu0"]) as hold:
        ...                  # a thread of the program starts reading
        hold.wait()          # it is about to read for the fifth time
        hold.release()

Calls are counted for each thread, from the moment when strace watches it.
"""
import collections
import pathlib
import subprocess
import tempfile

from lab.services import wait_until

SECONDS = 60
END_SECONDS = 20
FOREVER = 600_000_000 # microseconds
# The system calls that attach a mount: some releases of libmount use the one, some the other.
MOUNT_CALLS = "mount,move_mount"


def tasks(pid):
    return set(pathlib.Path("/proc", str(pid), "task").iterdir())


def is_traced(task):
    return "TracerPid:\t0\n" not in (task / "status").read_text(encoding="utf-8")


class Trace:
    """strace, attached to a running program and to the threads and processes that it starts."""

    def __init__(self, pid, calls, *options, paths=()):
        self._output = tempfile.NamedTemporaryFile(prefix="trace-")
        filters = [option for path in paths for option in ("-P", str(path))]
        self._tracer = subprocess.Popen(["strace", "-f", "-qq", "-y", "-s", "256", "-o", self._output.name,
                                         *filters, "-e", f"trace={calls}", *options, "-p", str(pid)],
                                        stderr=subprocess.DEVNULL)
        wait_until(lambda: all(map(is_traced, tasks(pid))), SECONDS, "strace attached")

    def lines(self):
        """The calls so far, in order, by thread ID. The last call of a thread may not have returned."""
        found = collections.defaultdict(list)
        for line in pathlib.Path(self._output.name).read_text(errors="replace").splitlines():
            thread, _, call = line.partition(" ")
            if not call.lstrip().startswith(("<...", "---", "+++")):
                found[int(thread)].append(call.lstrip())
        return found

    def end(self):
        """Detaches strace, so that all threads go on. strace is terminated, not killed: if it were killed, a
        signal on its way to the program would be lost."""
        self._tracer.terminate()
        try:
            self._tracer.wait(END_SECONDS)
        except subprocess.TimeoutExpired:
            self.give_up()
            raise

    def give_up(self):
        """Kills strace, for a program that has been killed: the program isn't gone while it is traced."""
        self._tracer.kill()
        self._tracer.wait()

    def __enter__(self):
        return self

    def __exit__(self, *_exception):
        self.end()
        self._output.close()


class Hold(Trace):
    """Holds the first thread that makes its call of this number: before the call, or after it if `behind` is
    true."""

    def __init__(self, pid, call, number, *, paths=(), behind=False):
        delay = "delay_exit" if behind else "delay_enter"
        self._place = f"{call} {number}"
        self._number = number
        super().__init__(pid, call, "-e", f"inject={call}:{delay}={FOREVER}:when={number}", paths=paths)

    def is_reached(self):
        return any(len(calls) >= self._number for calls in self.lines().values())

    def wait(self, seconds=SECONDS):
        wait_until(self.is_reached, seconds, f"the program at {self._place}")
        return self

    release = Trace.end
