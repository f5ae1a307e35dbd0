"""Whether the snapshot driver is there, as the agent sees it, for machines on which no driver does anything.

Inside lab/namespace only: the agent is linked with the library that stands in for the driver, and looks for
the driver's status below /run, which is private there. That library writes the files itself when the daemon
starts; until it has, they are written here.
"""
import json
import pathlib
import shutil

STATUS = pathlib.Path("/run/tolvubd")
VERSION = "lab-1.0"


def show_driver():
    """Lets the agent find a driver. One that shows itself already is left alone."""
    STATUS.mkdir(mode=0o755, exist_ok=True)
    if not (STATUS / "version").exists():
        (STATUS / "version").write_text(VERSION + "\n", encoding="ascii")
        show_status([])


def show_status(devices):
    """Lets the driver, whichever there is, say this of its devices until its next change."""
    text = json.dumps({"version": VERSION, "devices": devices})
    (STATUS / "info").write_text(text + "\n", encoding="ascii")


def hide_driver():
    """Takes the driver away, also from under a daemon that has found it."""
    shutil.rmtree(STATUS, ignore_errors=True)


def driver_version():
    """What the driver says its version is."""
    return (STATUS / "version").read_text(encoding="ascii").splitlines()[0]
