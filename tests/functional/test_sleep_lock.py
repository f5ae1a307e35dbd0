"""The sleep lock against the real message bus and the real login manager.

A small program holds the lock until its standard input closes; the login manager's own tool shows who
inhibits sleep.
"""
import os
import re
import subprocess

import pytest

from lab.daemon import program
from lab.services import LoginManager, SystemBus, wait_until

HOLDER = program("SleepLockHolder")
ROW = re.compile(r"^Tolvu Backup Agent\s+0\s+root\s+(\d+)\s+\S+\s+(\S+)\s+Backup running\s+block$",
                 re.MULTILINE)
SECONDS = 20


def inhibitors():
    """The output of `systemd-inhibit --list`."""
    listing = subprocess.run(
        ["systemd-inhibit", "--list", "--no-pager"], env={**os.environ, "COLUMNS": "500"},
        capture_output=True, text=True, check=True, timeout=SECONDS)
    return listing.stdout


class Holder:
    """The program that holds a lock."""

    def __enter__(self):
        self.process = subprocess.Popen(
            [HOLDER], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        return self

    def release(self):
        """Ends the program; returns its output."""
        output, _ = self.process.communicate(timeout=SECONDS)
        assert self.process.returncode == 0
        return output

    def __exit__(self, *_exception):
        if self.process.poll() is None:
            self.process.kill()
        self.process.communicate()


@pytest.fixture
def bus():
    with SystemBus() as service:
        yield service


@pytest.fixture
def login_manager(bus):
    with LoginManager() as service:
        yield service


def held_by(pid):
    """The set of actions that the process inhibits."""
    row = ROW.search(inhibitors())
    return set(row.group(2).split(":")) if row and int(row.group(1)) == pid else set()


def test_lock_is_listed_while_held(login_manager):
    assert "Tolvu" not in inhibitors()
    with Holder() as holder:
        what = wait_until(lambda: held_by(holder.process.pid), SECONDS, "lock in the list")
        assert what == {"idle", "sleep", "shutdown"}
        assert holder.release() == "Preventing system sleep\nAllowing system sleep\n"
    wait_until(lambda: "Tolvu" not in inhibitors(), SECONDS, "lock out of the list")


def test_lock_goes_with_a_killed_agent(login_manager):
    with Holder() as holder:
        wait_until(lambda: held_by(holder.process.pid), SECONDS, "lock in the list")
        holder.process.kill()
        holder.process.wait(SECONDS)
    wait_until(lambda: "Tolvu" not in inhibitors(), SECONDS, "lock out of the list")


def test_lock_outlives_the_bus(bus):
    with LoginManager():
        with Holder() as holder:
            wait_until(lambda: held_by(holder.process.pid), SECONDS, "lock in the list")
            bus.stop()
            assert holder.process.poll() is None
            assert holder.release() == "Preventing system sleep\nAllowing system sleep\n"


def test_no_bus_is_a_warning():
    with Holder() as holder:
        output = holder.release().splitlines()
    assert output[0].startswith("Could not prevent system sleep: Failed to connect to socket ")
    assert output[1:] == ["Could not allow sleep"]
