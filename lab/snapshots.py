"""Snapshots of volumes, taken and ended by the agent's own code as in a backup, but without the backup.

    with Session(partitions, incremental=False) as session:
        facts = session.start()
        session.end("success")
"""
import contextlib
import json
import os
import pathlib
import subprocess
import tempfile

from lab.commands import run
from lab.daemon import program
from lab.driver import forget_devices
from lab.services import wait_until

SECONDS = 60
MOUNT_ROOT = pathlib.Path("/tmp/tolvuMountRoot")


def mounts():
    """The mount points of snapshots."""
    lines = pathlib.Path("/proc/self/mountinfo").read_text(encoding="utf-8").splitlines()
    return [line.split()[4] for line in lines if line.split()[4].startswith(str(MOUNT_ROOT))]


def drop_snapshots():
    """Removes what a session has left: unmounts the snapshots, and makes the driver forget all volumes."""
    for path in mounts():
        run("umount", path)
    forget_devices()


class SessionError(Exception):
    """The session failed; the text is the exception's message."""


class Session:
    """One run of the program SnapshotSession, the part of the agent that handles snapshots."""

    def __init__(self, partitions, incremental):
        prefix = "+" if incremental else ""
        self._names = {partition.uuid: partition.name for partition in partitions}
        self._errors = tempfile.TemporaryFile()
        self._tracer = None
        self.process = subprocess.Popen(
            [program("SnapshotSession"), *(prefix + uuid for uuid in self._names)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self._errors, text=True)
        assert self.process.stdout.readline() == "ready\n", self.log

    @property
    def log(self):
        """The log so far; each line begins with its level as a number."""
        size = os.fstat(self._errors.fileno()).st_size
        return os.pread(self._errors.fileno(), size, 0).decode()

    def run(self, command):
        """Sends a command; returns the facts about the snapshots, by the names of the volumes, or None if the
        program has been killed meanwhile."""
        try:
            self.process.stdin.write(command + "\n")
            self.process.stdin.flush()
        except BrokenPipeError:
            return None
        line = self.process.stdout.readline()
        if not line:
            return None
        answer = json.loads(line)
        if isinstance(answer, str):
            raise SessionError(answer)
        return {self._names[uuid]: facts for uuid, facts in answer.items()}

    def start(self):
        return self.run("start")

    def check(self):
        """The check of each snapshot at the end of a copy: 0, or an error number."""
        return self.run("check")

    def end(self, outcome):
        return self.run(f"end {outcome}")

    def trace(self, *options, output="/dev/null"):
        """Traces the system calls with strace from here on."""
        self._tracer = subprocess.Popen(["strace", "-f", "-qq", "-o", output, *options, "-p",
                                         str(self.process.pid)])
        status = pathlib.Path("/proc", str(self.process.pid), "status")
        wait_until(lambda: "TracerPid:\t0\n" not in status.read_text(), SECONDS, "strace attached")

    def __enter__(self):
        return self

    def __exit__(self, *_exception):
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.close()
        try:
            self.process.wait(SECONDS)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        if self._tracer:
            self._tracer.wait(SECONDS)
        self.process.stdout.close()
        self._errors.close()
