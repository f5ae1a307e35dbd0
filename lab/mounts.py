"""Mounts, which last as long as a context does."""
import contextlib
import pathlib
import subprocess
import sys

from lab.commands import run

# Waits for a process that is no child. One that has ended is gone even where nobody reaps it, as in a
# container whose first process does not.
AWAIT_END = """
import contextlib, os, select, sys
with contextlib.suppress(ProcessLookupError):
    select.select([os.pidfd_open(int(sys.argv[1]))], [], [])
"""


@contextlib.contextmanager
def mounted(device, mount_point, options, file_system):
    """Mounts a device by the kernel; makes the directory, and yields it."""
    mount_point = pathlib.Path(mount_point)
    mount_point.mkdir(parents=True, exist_ok=True)
    run("mount", "-t", file_system, "-o", options, device, mount_point)
    try:
        yield mount_point
    finally:
        run("umount", mount_point)


def keep_mounts_of(pid, *entering):
    """Starts a process that stays in its mount namespace, or in that which the command `entering` goes to,
    until another process has gone.

    When a mount namespace goes, a file system in user space is told, by the last process that was in there.
    If that is its own server, killed, it waits for its own answer for ever, and every sync() of the machine
    with it."""
    return subprocess.Popen([*entering, sys.executable, "-c", AWAIT_END, str(pid)],
                            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                            start_new_session=True)
