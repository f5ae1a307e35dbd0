"""What the snapshot driver shows of itself, and how it is told to forget.

Inside lab/namespace only: the agent is linked with the library that stands in for the driver, and looks for
the driver's status below /run, which is private there. That library writes the files itself, anew at each
look; a test that wants others takes it the lock by which its functions follow each other.
"""
import json
import pathlib
import shutil

from lab.commands import run
from lab.daemon import program

STATUS = pathlib.Path("/run/tolvubd")
INFO = STATUS / "info"
STORE = pathlib.Path("/var/lib/tolvubd") # of what volumes held when their snapshots were taken
LOCK = STORE / "lock"
VERSION = "lab-1.0"
OWN_FILES = (".tolvu", ".tolvu1", ".tolvu.inc", ".tolvu.era") # in the root of a volume


def end_session():
    """What a restart of the machine leaves of the driver until it is asked for something."""
    shutil.rmtree(STATUS, ignore_errors=True)


def hide_driver():
    """Takes the driver away until show_driver(), also from under a daemon that has found it."""
    end_session()
    LOCK.unlink(missing_ok=True)
    LOCK.mkdir(parents=True) # no file can be opened here, so that no function of the library gets its turn


def show_driver():
    """Lets the agent find the driver."""
    if LOCK.is_dir():
        LOCK.rmdir()
    take_a_turn()


def show_status(devices):
    """Another driver in place of this one says this of its devices, until show_driver()."""
    hide_driver()
    STATUS.mkdir(mode=0o755)
    (STATUS / "version").write_text(VERSION + "\n", encoding="ascii")
    INFO.write_text(json.dumps({"version": VERSION, "devices": devices}) + "\n", encoding="ascii")


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
    end_session()
    take_a_turn()


def forget_devices():
    """The driver knows no volume any more."""
    for device in devices():
        run(program("tolvuctl"), "destroy", device["minor"])
