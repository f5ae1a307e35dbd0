"""What the snapshot driver shows of itself, and how it is told to forget.

Inside lab/namespace only: the agent is linked with the library that stands in for the driver, and looks for
the driver's status below /run, which is private there. That library writes the files itself when the daemon
starts; until it has, they can be written here, for machines on which no driver does anything.
"""
import json
import pathlib
import shutil

from lab.commands import run
from lab.daemon import program

STATUS = pathlib.Path("/run/tolvubd")
INFO = STATUS / "info"
STORE = pathlib.Path("/var/lib/tolvubd") # of what volumes held when their snapshots were taken
VERSION = "lab-1.0"
OWN_FILES = (".tolvu", ".tolvu1", ".tolvu.inc", ".tolvu.era") # in the root of a volume


def show_driver():
    """Lets the agent find a driver. One that shows itself already is left alone."""
    STATUS.mkdir(mode=0o755, exist_ok=True)
    if not (STATUS / "version").exists():
        (STATUS / "version").write_text(VERSION + "\n", encoding="ascii")
        show_status([])


def show_status(devices):
    """Lets the driver, whichever there is, say this of its devices until its next change."""
    INFO.write_text(json.dumps({"version": VERSION, "devices": devices}) + "\n", encoding="ascii")


def hide_driver():
    """Takes the driver away, also from under a daemon that has found it."""
    shutil.rmtree(STATUS, ignore_errors=True)


def driver_version():
    """What the driver says its version is."""
    return (STATUS / "version").read_text(encoding="ascii").splitlines()[0]


def info():
    """What the driver says of itself."""
    return json.loads(INFO.read_text(encoding="utf-8"))


def devices():
    """What the driver says of each of its devices; nothing where there is no driver."""
    return info()["devices"] if INFO.exists() else []


def stored_state():
    """What the driver keeps across restarts of the machine."""
    return json.loads((STORE / "state.json").read_text(encoding="utf-8"))


def nodes():
    """The names of the devices that show snapshots."""
    return sorted(path.name for path in pathlib.Path("/dev").iterdir() if "tolvu" in path.name)


def take_a_turn():
    """The driver writes its status anew."""
    run(program("tolvuctl"), "cleanup")


def restart():
    """As after a restart of the machine on which no reload script gives a device back."""
    hide_driver()
    take_a_turn()


def forget_devices():
    """The driver knows no volume any more."""
    for device in devices():
        run(program("tolvuctl"), "destroy", device["minor"])
