"""The files below /sys by which a snapshot driver shows that it is loaded, for machines that have none.

Inside lab/namespace only: /sys/module is covered by a file system of its own there.
"""
import pathlib
import subprocess

MODULES = pathlib.Path("/sys/module")
VERSION = "lab-1.0"


def show_driver(version=VERSION):
    """Lets the machine look as if the driver were loaded. The driver itself does not come with it."""
    if not MODULES.is_mount():
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", MODULES], check=True)
    directory = MODULES / "tolvubd"
    directory.mkdir(exist_ok=True)
    (directory / "version").write_text(version + "\n", encoding="ascii")


def hide_driver():
    if MODULES.is_mount():
        subprocess.run(["umount", MODULES], check=True)
