"""lab/site: it comes up, it goes, and whatever is killed meanwhile, nothing stays behind.

Each test has a checkout of its own, as there is one site a checkout.
"""
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys

import pytest

from lab import volumes
from lab.services import wait_until

ROOT = pathlib.Path(__file__).resolve().parents[2]
SECONDS = 60
SERVICES = ("dbus-daemon", "systemd-logind", "systemd-udevd", "ntfs-3g", "udisksd")
NOT_UP = (3, "the site is not up\n")


class Checkout:
    """The lab in a directory of its own."""

    def __init__(self, directory):
        self.directory = directory
        shutil.copytree(ROOT / "lab", directory / "lab", ignore=shutil.ignore_patterns("__pycache__"))
        self.tokens = set()

    def run(self, *arguments):
        """Exit status, standard output and standard error of lab/site."""
        done = subprocess.run([self.directory / "lab" / "site", *arguments], capture_output=True, text=True,
                              check=False, timeout=SECONDS)
        return done.returncode, done.stdout, done.stderr

    def site(self, *arguments):
        """Exit status and standard output, where there is nothing to complain of."""
        status, output, errors = self.run(*arguments)
        assert errors == ""
        return status, output

    def up(self):
        status, table = self.site("up")
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

    @staticmethod
    def parents():
        """The parent of each process of the machine, by number."""
        parents = {}
        for path in pathlib.Path("/proc").glob("[0-9]*/stat"):
            try:
                parents[int(path.parent.name)] = int(path.read_text().rpartition(")")[2].split()[1])
            except (FileNotFoundError, ProcessLookupError):
                continue
        return parents

    def first_process(self):
        """Of the site's namespaces."""
        return next(pid for pid, parent in self.parents().items() if parent == self.record["pid"])

    def processes(self):
        """All that run for the site, by number: the recorded one and whatever comes from it."""
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
        """Not even after a while: what the kernel does by itself, it does at once or never."""
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


@pytest.fixture
def checkout(tmp_path):
    made = Checkout(tmp_path)
    yield made
    made.site("down")


def test_up_and_down(checkout):
    assert checkout.site("status") == NOT_UP
    table = checkout.up()
    assert [line.split()[0] for line in table.splitlines()] == [
        "name", "data", "files", "windows", "archive", "spare", "swap"]
    processes = checkout.processes()
    assert len(processes) >= 2 + len(SERVICES)
    assert checkout.site("status") == (0, table)
    assert checkout.site("down") == (0, "")
    checkout.assert_gone(processes)
    assert os.listdir(checkout.directory / "build") == []
    assert checkout.site("status") == NOT_UP


def test_up_and_down_twice(checkout):
    table = checkout.up()
    record = checkout.record
    assert checkout.up() == table
    assert checkout.record == record
    for _ in range(2):
        assert checkout.site("down") == (0, "")
    assert checkout.up() != table
    assert checkout.record != record


def test_shell(checkout):
    checkout.up()
    assert checkout.inside("pwd") == f"{checkout.directory}\n"
    assert checkout.site("shell", "sh", "-c", "exit 7") == (7, "")
    links = checkout.inside("ls", "/dev/disk/by-uuid").split()
    assert set(links) >= set(re.findall(r"[0-9a-f]{8}-\S+|[0-9A-F]{16}", checkout.site("status")[1]))
    assert "ntfs" in checkout.inside("udisksctl", "info", "--block-device",
                                     checkout.site("status")[1].splitlines()[3].split()[1])
    checkout.inside("touch", "/etc/tolvu-was-here", "/mnt/data/file")
    assert not os.path.exists("/etc/tolvu-was-here") and not os.path.exists("/mnt/data")


def test_shell_without_a_site(checkout):
    assert checkout.run("shell", "true") == (3, "", "the site is not up\n")


@pytest.mark.parametrize("whom", ["recorded", "first", *SERVICES])
def test_killing_anybody_leaves_nothing(checkout, whom):
    """The holder with all that is the site's, or one service without the rest: that goes with the site."""
    checkout.up()
    processes = checkout.processes()
    first = {"recorded": checkout.record["pid"], "first": checkout.first_process()}
    os.kill(first[whom] if whom in first else checkout.pid_of(whom), signal.SIGKILL)
    if whom in first:
        checkout.assert_gone(processes)
        assert checkout.site("status") == NOT_UP
    assert checkout.site("down") == (0, "")
    checkout.assert_gone(processes)
    assert os.listdir(checkout.directory / "build") == []


def test_up_after_a_crash(checkout):
    checkout.up()
    processes = checkout.processes()
    os.kill(checkout.record["pid"], signal.SIGKILL)
    checkout.up()
    checkout.assert_ended(processes)
    assert checkout.inside("cat", "/proc/1/comm") == "python3\n"


def test_goes_where_orphans_are_not_reaped(checkout):
    """As in a container whose first process only waits for its own child: what has lost its parent stays in
    the table of processes for ever."""
    program = "import subprocess, sys; sys.exit(subprocess.call(sys.argv[1:]))"
    done = subprocess.run(
        ["unshare", "--pid", "--fork", "--mount-proc", sys.executable, "-c", program, "sh", "-ec",
         "lab/site up; lab/site down; lab/site up; exec lab/site down"],
        cwd=checkout.directory, capture_output=True, text=True, check=False, timeout=2 * SECONDS)
    assert (done.returncode, done.stderr) == (0, "")
    assert os.listdir(checkout.directory / "build") == []


def test_record_of_another_process_is_left_alone(checkout):
    """A number that the machine has given to somebody else since."""
    checkout.up()
    record = checkout.record
    checkout.site("down")
    with subprocess.Popen(["sleep", "600"]) as other:
        try:
            path = checkout.directory / "build" / "site.json"
            path.write_text(json.dumps(record | {"pid": other.pid}), encoding="ascii")
            assert checkout.site("status") == NOT_UP
            assert checkout.site("down") == (0, "")
            assert other.poll() is None
        finally:
            other.kill()


def test_busy_site_goes_down(checkout):
    """Somebody stands on a volume and holds a file of it open."""
    checkout.up()
    with subprocess.Popen([checkout.directory / "lab" / "site", "shell", "sh", "-c",
                           "cd /mnt/data && exec 3>file && echo there && exec sleep 600"],
                          stdout=subprocess.PIPE, text=True) as busy:
        assert busy.stdout.readline() == "there\n"
        processes = checkout.processes()
        assert checkout.site("down") == (0, "")
        checkout.assert_gone(processes)
        assert busy.wait(SECONDS) != 0


def test_two_sites_at_once(checkout, tmp_path_factory):
    other = Checkout(tmp_path_factory.mktemp("other"))
    try:
        tables = [checkout.up(), other.up()]
        assert tables[0] != tables[1]
        assert checkout.site("down") == (0, "")
        assert other.site("status") == (0, tables[1])
    finally:
        other.site("down")


def test_site_that_cannot_come_up(checkout):
    """It says why, and leaves nothing."""
    path = checkout.directory / "lab" / "xfs.py"
    path.write_text(path.read_text(encoding="utf-8").replace('"mkfs.xfs"', '"mkfs.none"'), encoding="utf-8")
    status, _, errors = checkout.run("up")
    assert status == 1
    assert errors.startswith("lab/site: the site did not come up:\n") and "mkfs.none" in errors
    assert os.listdir(checkout.directory / "build") == []
    assert checkout.site("status") == NOT_UP


def test_command_line_that_makes_no_sense(checkout):
    for arguments in ([], ["up", "now"], ["sideways"]):
        status, _, errors = checkout.run(*arguments)
        assert status == 64 and "lab/site up" in errors
