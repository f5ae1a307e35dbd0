"""lab/site: it comes up and goes down, and whatever is killed meanwhile, nothing is left behind.

Each test has a checkout of its own, as there is one site for each checkout.
"""
import json
import os
import re
import signal
import subprocess
import sys

import pytest

from checkout import SECONDS, Checkout
from lab.loops import images_of
from lab.services import wait_until

SERVICES = ("dbus-daemon", "systemd-logind", "systemd-udevd", "ntfs-3g", "udisksd")
NOT_UP = (3, "the site is not up\n")


@pytest.fixture
def checkout(tmp_path):
    with Checkout(tmp_path) as made:
        yield made


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
    """If the holder is killed, all of the site ends; if one service is killed, the others stay until the site
    goes down."""
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
    """The first process reaps only its own child, as in some containers: orphans stay in the process table
    for ever."""
    program = "import subprocess, sys; sys.exit(subprocess.call(sys.argv[1:]))"
    done = subprocess.run(
        ["unshare", "--pid", "--fork", "--mount-proc", sys.executable, "-c", program, "sh", "-ec",
         "lab/site up; lab/site down; lab/site up; exec lab/site down"],
        cwd=checkout.directory, capture_output=True, text=True, check=False, timeout=SECONDS)
    assert (done.returncode, done.stderr) == (0, "")
    assert os.listdir(checkout.directory / "build") == []


def test_record_of_another_process_is_left_alone(checkout):
    """The PID now belongs to another process."""
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
    """A process has its working directory on a volume, and has a file of it open."""
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
    with Checkout(tmp_path_factory.mktemp("other")) as other:
        tables = [checkout.up(), other.up()]
        assert tables[0] != tables[1]
        assert checkout.site("down") == (0, "")
        assert other.site("status") == (0, tables[1])


def test_site_that_cannot_come_up(checkout):
    """`lab/site up` says why, and leaves nothing behind."""
    path = checkout.directory / "lab" / "xfs.py"
    path.write_text(path.read_text(encoding="utf-8").replace('"mkfs.xfs"', '"mkfs.none"'), encoding="utf-8")
    status, _, errors = checkout.run("up")
    assert status == 1
    assert errors.startswith("lab/site: the site did not come up:\n") and "mkfs.none" in errors
    assert os.listdir(checkout.directory / "build") == []
    assert checkout.site("status") == NOT_UP


def printed_commands(text):
    """The commands to be typed next: indented, and some of them in two lines."""
    return re.findall(r"^    (lab/site shell (?:.*\\\n)*.*)$", text, re.MULTILINE)


def test_paired(checkout):
    """The output describes what there is, and its commands work."""
    text = checkout.up("--paired")
    assert "paired with the appliance of number 4711" in text
    assert checkout.site("status") == (0, text)
    assert checkout.up("--paired") == text and checkout.up() == text
    commands = printed_commands(text)
    outputs = [checkout.shell(command) for command in commands]
    assert len(outputs) == 6
    assert " full finished, " in outputs[0] and " incremental finished, " in outputs[1]
    assert "Backup run finished" in outputs[2]
    assert "lost+found" in outputs[5] and ".tolvu" in outputs[5]
    processes = checkout.processes()
    assert checkout.site("down") == (0, "")
    checkout.assert_gone(processes)
    assert os.listdir(checkout.directory / "build") == []


def test_paired_daemon_is_stopped_and_started_as_an_administrator_does(checkout):
    """The site's first process reaps the daemon, so that its PID and its port are free."""
    checkout.up("--paired")
    ended = "while [ -e /proc/$(cat /run/bekd.pid) ]; do sleep 0.1; done"
    answers = "until lab/appliance driver; do sleep 0.1; done 2>/dev/null"
    assert checkout.inside("sh", "-c", f"kill $(cat /run/bekd.pid) && timeout 20 sh -c '{ended}' && "
                                       f"$BEKD_BUILD/bekd && timeout 20 sh -c '{answers}'")


def show_snapshot(checkout):
    """Brings a paired site up, with a backup in the middle, whose snapshot exists. Returns the device numbers
    (st_dev) of the file systems with the site's captures and images."""
    text = checkout.up("--paired")
    checkout.inside("dd", "if=/dev/urandom", "of=/mnt/data/file", "bs=1M", "count=500", "status=none")
    stores = [int(checkout.inside("stat", "--format=%d", path)) for path in ("/var/lib/tolvubd", "/tmp")]
    checkout.shell(printed_commands(text)[0].replace(" --watch", ""))
    wait_until(lambda: images_of(stores[0]), SECONDS, "the snapshot")
    return stores


@pytest.mark.parametrize("whom", ["recorded", "first", "bekd", "tgtd"])
def test_paired_site_that_is_killed_leaves_nothing(checkout, whom):
    """The site is killed in the middle of a backup, while its snapshot is mounted."""
    stores = show_snapshot(checkout)
    processes = checkout.processes()
    first = {"recorded": checkout.record["pid"], "first": checkout.first_process()}
    os.kill(first[whom] if whom in first else checkout.pid_of(whom), signal.SIGKILL)
    assert checkout.site("down") == (0, "")
    checkout.assert_gone(processes)
    wait_until(lambda: not any(map(images_of, stores)), SECONDS, "its loop devices gone")
    assert os.listdir(checkout.directory / "build") == []


def test_snapshot_of_another_site_is_left_alone(checkout, tmp_path_factory):
    """The kernel has reused the first site's file system number for the second one."""
    checkout.up()
    record = checkout.record
    with Checkout(tmp_path_factory.mktemp("other")) as other:
        captures, _ = show_snapshot(other)
        os.kill(other.pid_of("tgtd"), signal.SIGSTOP) # which keeps its backup running
        os.kill(record["pid"], signal.SIGKILL)
        path = checkout.directory / "build" / "site.json"
        path.write_text(json.dumps(record | {"captures": captures}), encoding="ascii")
        before = images_of(captures)
        assert checkout.site("down") == (0, "")
        assert before and images_of(captures) == before


def test_paired_agent_that_is_not_built(checkout):
    done = subprocess.run([checkout.directory / "lab" / "site", "up", "--paired"], capture_output=True,
                          text=True, check=False, timeout=SECONDS, env={**os.environ, "BEKD_BUILD": "/none"})
    assert (done.returncode, done.stderr) == (
        1, "lab/site: there is no /none/bekd; `scripts/build release` makes it\n")


def test_paired_over_a_site_that_is_not(checkout):
    checkout.up()
    status, _, errors = checkout.run("up", "--paired")
    assert (status, errors) == (1, "lab/site: the site is up without a paired agent; `lab/site down` makes "
                                   "room for another\n")


def test_paired_site_that_cannot_come_up(checkout):
    """`lab/site up` says why, and ends everything that it had started."""
    path = checkout.directory / "lab" / "targets.py"
    text = path.read_text(encoding="utf-8")
    path.write_text(text.replace('"tgtd", "-f"', '"none", "-f"'), encoding="utf-8")
    status, _, errors = checkout.run("up", "--paired")
    assert status == 1
    assert errors.startswith("lab/site: the site did not come up:\n") and "none" in errors
    assert os.listdir(checkout.directory / "build") == []


def test_command_line_that_makes_no_sense(checkout):
    for arguments in ([], ["up", "now"], ["up", "--paired", "now"], ["sideways"]):
        status, _, errors = checkout.run(*arguments)
        assert status == 64 and "lab/site up" in errors
