"""The status files of the snapshot driver, and ways to make it forget its devices.

Inside lab/namespace only: the agent is linked with the library that stands in for the driver. It looks for
the driver's status below /run, which is private there. That library writes the status files anew at each
call. A test that wants other content must take away the lock that the library's functions need.
"""
import json
import pathlib
import shutil

from lab.commands import run
from lab.daemon import program

STATUS = pathlib.Path("/run/tolvubd")
INFO = STATUS / "info"
STORE = pathlib.Path("/var/lib/tolvubd") # copies of what the volumes held when their snapshots were taken
LOCK = STORE / "lock"
VERSION = "lab-1.0"
OWN_FILES = (".tolvu", ".tolvu1", ".tolvu.inc", ".tolvu.era") # in the root of a volume


def end_session():
    """Removes the driver's status, as a restart of the machine does; it is back when the driver is next
    called."""
    shutil.rmtree(STATUS, ignore_errors=True)


def hide_driver():
    """Hides the driver until show_driver(), even from a daemon that has found it already."""
    end_session()
    LOCK.unlink(missing_ok=True)
    LOCK.mkdir(parents=True) # a directory can't be opened as the lock, so every library function fails


def show_driver():
    """Makes the driver visible to the agent again."""
    if LOCK.is_dir():
        LOCK.rmdir()
    refresh_status()


def show_status(devices):
    """Pretends that another driver reports these devices, until show_driver()."""
    hide_driver()
    STATUS.mkdir(mode=0o755)
    (STATUS / "version").write_text(VERSION + "\n", encoding="ascii")
    INFO.write_text(json.dumps({"version": VERSION, "devices": devices}) + "\n", encoding="ascii")


def driver_version():
    """The version that the driver reports."""
    return (STATUS / "version").read_text(encoding="ascii").splitlines()[0]


def info():
    """The driver's whole status."""
    return json.loads(INFO.read_text(encoding="utf-8"))


def devices():
    """The driver's status of each device; empty if there is no driver."""
    return info()["devices"] if INFO.exists() else []


def stored_state():
    """The state that the driver keeps across restarts of the machine."""
    return json.loads((STORE / "state.json").read_text(encoding="utf-8"))


def nodes():
    """The names of the device nodes of snapshots."""
    return sorted(path.name for path in pathlib.Path("/dev").iterdir() if "tolvu" in path.name)


def refresh_status():
    """Makes the driver write its status anew."""
    run(program("tolvuctl"), "cleanup")


def restart():
    """Simulates a restart of the machine after which no reload script gives a device back to the driver."""
    end_session()
    refresh_status()


def forget_devices():
    """Makes the driver forget all its volumes."""
    for device in devices():
        run(program("tolvuctl"), "destroy", device["minor"])
