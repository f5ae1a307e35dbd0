"""The programs that bekd's units run at boot, each called as the unit calls it. The driver is simulated by a
status file, and by reload scripts that write to it."""
import fcntl
import json
import os
import pathlib
import re
import socket
import subprocess

import pytest

from lab.appliance_client import PORT
from lab.daemon import BASE, PID_FILE, ROOT

PROGRAMS = ROOT / "packaging" / "lib"
STATUS = pathlib.Path("/run/tolvubd/info")
UUIDS = ("0a1b2c3d-8c51-4a1e-9d0c-2f0e6f2f4b0e", "3CAB0FFF4A1537E4")
SECONDS = 30


def call(name, *arguments, **environment):
    """Calls the program as root; both output streams are in `stdout`, in order."""
    return subprocess.run([PROGRAMS / name, *arguments], env={**os.environ, **environment}, text=True,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          check=False, timeout=SECONDS)


def device(minor, error=0):
    return {"minor": minor, "cow_file": "/.tolvu", "block_device": f"/dev/disk/by-uuid/{UUIDS[0]}",
            "state": 2, "error": error}


def show(*devices, indent=4):
    """Writes the driver's status."""
    STATUS.parent.mkdir(exist_ok=True)
    STATUS.write_text(json.dumps({"version": "1.0", "devices": devices}, indent=indent), encoding="utf-8")


def script(minor, lines="", uuid=UUIDS[0], mode=0o700):
    """Writes a reload script that runs `lines` and exits, before its call of the driver's tool."""
    path = BASE / f"reload_{minor}"
    path.write_text(f"#!/bin/sh\n{lines}\nexit 0\n"
                    f"/usr/bin/tolvuctl reload-incremental /dev/disk/by-uuid/{uuid} /.tolvu {minor}\n",
                    encoding="utf-8")
    path.chmod(mode)
    return path


def giving(*devices):
    """Script lines that give these devices to the driver."""
    return f"echo '{json.dumps({'version': '1.0', 'devices': devices})}' >{STATUS}"


@pytest.fixture(autouse=True)
def empty_site():
    """Removes other scripts; the driver has no devices."""
    BASE.mkdir(parents=True, exist_ok=True)
    BASE.chmod(0o755)
    for path in BASE.glob("reload_*"):
        path.unlink()
    show()


def test_no_script_is_nothing_to_say():
    done = call("reload-tracking")
    assert (done.returncode, done.stdout) == (0, "")


def test_each_volume_is_told_of():
    script(0, giving(device(0)))
    script(12, "echo 'tolvuctl: not mounted' >&2; exit 1", UUIDS[1])
    done = call("reload-tracking")
    assert done.returncode == 0
    assert done.stdout.splitlines() == [
        f"volume {UUIDS[0]}: tracked",
        f"volume {UUIDS[1]}: will be compared in full: tolvuctl: not mounted"]


def test_what_the_driver_has_is_not_asked_for_again(tmp_path):
    script(1, f"touch {tmp_path}/called")
    show(device(11), device(1))
    assert call("reload-tracking").stdout == f"volume {UUIDS[0]}: tracked\n"
    assert not (tmp_path / "called").exists()


@pytest.mark.parametrize("indent", [None, 4])
def test_a_device_that_failed_is_not_called_tracked(indent):
    script(1)
    show(device(0), device(1, error=116), indent=indent)
    assert call("reload-tracking").stdout == \
        f"volume {UUIDS[0]}: will be compared in full: the driver has error 116\n"


def test_a_script_that_only_says_it_has_done_so_is_not_believed():
    script(1)
    show(device(11))
    assert call("reload-tracking").stdout == \
        f"volume {UUIDS[0]}: will be compared in full: the driver has no device 1\n"


def test_a_script_that_never_ends_is_ended():
    script(0, "sleep 1000")
    script(1, giving(device(1)))
    done = call("reload-tracking", BEKD_RELOAD_SECONDS="0.5")
    assert done.stdout.splitlines() == [
        f"volume {UUIDS[0]}: will be compared in full: no answer within 0.5 seconds",
        f"volume {UUIDS[0]}: tracked"]


def test_what_a_script_says_is_cut_short():
    script(0, "yes | head -c 1000000; exit 1")
    done = call("reload-tracking")
    assert len(done.stdout) < 500
    assert len(done.stdout.splitlines()) == 1


def test_the_journal_is_told_how_severe_a_line_is():
    script(0, giving(device(0)))
    script(1, "exit 1")
    script(2, mode=0o722)
    lines = call("reload-tracking", JOURNAL_STREAM="8:1").stdout.splitlines()
    assert [line[:3] for line in lines] == ["<6>", "<4>", "<3>"]


def change_owner(path):
    os.chown(path, 1000, 0)


def open_to_group(path):
    path.chmod(0o720)


def replace_by_link(path):
    path.rename(path.with_name("elsewhere"))
    path.symlink_to("elsewhere")


def replace_by_pipe(path):
    path.unlink()
    os.mkfifo(path, 0o700)


def open_directory(path):
    path.parent.chmod(0o777)


@pytest.mark.parametrize("spoil", [change_owner, open_to_group, replace_by_link, replace_by_pipe,
                                   open_directory])
def test_what_others_could_have_written_is_not_run(tmp_path, spoil):
    spoil(script(0, f"touch {tmp_path}/called"))
    done = call("reload-tracking")
    assert done.returncode == 1
    assert done.stdout.startswith("reload_0 is refused, and its volume will be compared in full: ")
    assert len(done.stdout.splitlines()) == 1
    assert not (tmp_path / "called").exists()


@pytest.mark.parametrize("name", ["reload_", "reload_256", "reload_01", "reload_1.old", "reload_-1"])
def test_other_names_are_none_of_the_drivers(tmp_path, name):
    script(0, f"touch {tmp_path}/called").rename(BASE / name)
    assert call("reload-tracking").stdout == ""
    assert not (tmp_path / "called").exists()


def test_before_mounts_only_a_driver_in_the_kernel_is_asked(tmp_path):
    script(0, f"touch {tmp_path}/called")
    assert call("reload-tracking", "--before-mounts").stdout == ""
    assert not (tmp_path / "called").exists()


def test_a_driver_in_the_kernel_gets_it_before_mounts():
    """/proc is replaced by a directory with the files that such a driver shows there. Devices that it refuses
    are left for later."""
    pathlib.Path("/dev/disk/by-uuid").mkdir(parents=True, exist_ok=True)
    pathlib.Path("/dev/disk/by-uuid", UUIDS[0]).touch()
    script(0, giving(device(0)).replace(str(STATUS), "/proc/tolvu-info"))
    script(1, "exit 1")
    done = subprocess.run(["unshare", "--mount", "sh", "-c", "mount -t tmpfs none /proc && touch "
                           f"/proc/tolvu-info && exec {PROGRAMS}/reload-tracking --before-mounts"],
                          capture_output=True, text=True, check=True, timeout=SECONDS)
    assert done.stdout == f"volume {UUIDS[0]}: tracked\n"


def test_unknown_words_are_refused():
    done = call("reload-tracking", "--later")
    assert (done.returncode, done.stdout) == (2, "usage: reload-tracking [--before-mounts]\n")


def test_a_left_over_pid_file_is_taken_away():
    PID_FILE.write_text(str(os.getpid()), encoding="ascii")
    assert call("prepare-start").returncode == 0
    assert not PID_FILE.exists()


def test_a_bekd_that_was_started_by_hand_is_named():
    with open(PID_FILE, "w", encoding="ascii") as file:
        file.write("4711")
        file.flush()
        fcntl.flock(file, fcntl.LOCK_EX)
        done = call("prepare-start")
        assert (done.returncode, PID_FILE.read_text(encoding="ascii")) == (1, "4711")
    assert done.stdout == "bekd runs already, started by hand as process 4711; end that one first\n"
    PID_FILE.unlink()


def test_a_machine_without_a_message_bus_is_told_what_is_missing():
    done = call("prepare-start")
    assert (done.returncode, done.stdout) == \
        (0, "There is no D-Bus here: no volume will be found. Install dbus\n")


def test_whoever_has_the_port_is_named():
    with socket.create_server(("127.0.0.1", PORT)):
        done = call("prepare-start")
    assert done.returncode == 1
    assert re.fullmatch(rf'port {PORT} is taken: .*pid={os.getpid()},.*\n', done.stdout)
