"""A copy of the lab, for tests of something that exists once per checkout: its site."""
import json
import os
import pathlib
import shutil
import subprocess

from lab import volumes
from lab.daemon import program
from lab.services import wait_until

ROOT = pathlib.Path(__file__).resolve().parents[2]
SECONDS = 120


class Checkout:
    """The lab, copied to a directory of its own."""

    def __init__(self, directory):
        self.directory = directory
        shutil.copytree(ROOT / "lab", directory / "lab", ignore=shutil.ignore_patterns("__pycache__"))
        (directory / "platform").symlink_to(ROOT / "platform")
        self.tokens = set()

    def __enter__(self):
        return self

    def __exit__(self, *_exception):
        self.site("down")

    def run(self, *arguments):
        """Runs lab/site; returns its exit status, standard output and standard error."""
        done = subprocess.run([self.directory / "lab" / "site", *arguments], capture_output=True, text=True,
                              check=False, timeout=SECONDS, env=self.environment())
        return done.returncode, done.stdout, done.stderr

    @staticmethod
    def environment():
        """The environment, with the programs of the real checkout."""
        return {**os.environ, "BEKD_BUILD": str(program("").resolve())}

    def site(self, *arguments):
        """Runs lab/site, which must print nothing on standard error; returns its exit status and standard
        output."""
        status, output, errors = self.run(*arguments)
        assert errors == ""
        return status, output

    def up(self, *options):
        status, table = self.site("up", *options)
        assert status == 0
        self.tokens.add(self.record["token"])
        return table

    @property
    def record(self):
        return json.loads((self.directory / "build" / "site.json").read_text(encoding="ascii"))

    def inside(self, *command):
        status, output = self.site("shell", *command)
        assert status == 0
        return output

    def shell(self, command):
        """Runs a command line in the checkout, which must succeed; returns its output."""
        done = subprocess.run(["bash", "-euo", "pipefail", "-c", command], cwd=self.directory,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True, check=False, timeout=SECONDS, env=self.environment())
        assert done.returncode == 0, f"{command}\n{done.stdout}"
        return done.stdout

    @staticmethod
    def parents():
        """The PID of the parent of each process of the machine, by PID."""
        parents = {}
        for path in pathlib.Path("/proc").glob("[0-9]*/stat"):
            try:
                parents[int(path.parent.name)] = int(path.read_text().rpartition(")")[2].split()[1])
            except (FileNotFoundError, ProcessLookupError):
                continue
        return parents

    def first_process(self):
        """The first process of the site's namespaces."""
        return next(pid for pid, parent in self.parents().items() if parent == self.record["pid"])

    def processes(self):
        """The PIDs of all processes of the site: the recorded one and its descendants."""
        found = {self.record["pid"]}
        parents = self.parents()
        while True:
            further = {pid for pid, parent in parents.items() if parent in found} - found
            if not further:
                return found
            found |= further

    def pid_of(self, name):
        return next(pid for pid in self.processes()
                    if pathlib.Path("/proc", str(pid), "comm").read_text().strip() == name[:15])

    def assert_gone(self, processes):
        """Checks that the site is gone. Loop devices may take a while; what the kernel does itself, it does
        at once or never."""
        for token in self.tokens:
            wait_until(lambda token=token: not volumes.loops_of(token), SECONDS, "the loop device gone")
        self.assert_ended(processes)

    @staticmethod
    def assert_ended(processes):
        wait_until(lambda: not any(map(is_running, processes)), SECONDS, "the processes gone")


def is_running(pid):
    try:
        return pathlib.Path("/proc", str(pid), "stat").read_text().rpartition(")")[2].split()[0] != "Z"
    except (FileNotFoundError, ProcessLookupError):
        return False
