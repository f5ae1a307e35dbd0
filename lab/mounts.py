"""Mounts, which last as long as a context does."""
import contextlib
import pathlib
import subprocess
import sys

from lab.commands import run

# Waits for a process that isn't a child. Waiting for the process's end works even if nobody reaps it, as in a
# container whose first process doesn't.
AWAIT_END = """
import contextlib, os, select, sys
with contextlib.suppress(ProcessLookupError):
    select.select([os.pidfd_open(int(sys.argv[1]))], [], [])
"""


@contextlib.contextmanager
def mounted(device, mount_point, options, file_system):
    """Mounts a device with the kernel's driver; makes the directory, and yields it."""
    mount_point = pathlib.Path(mount_point)
    mount_point.mkdir(parents=True, exist_ok=True)
    run("mount", "-t", file_system, "-o", options, device, mount_point)
    try:
        yield mount_point
    finally:
        run("umount", mount_point)


def keep_mounts_of(pid, *entering):
    """Starts a process that stays in this process's mount namespace, or in the one that the command
    `entering` goes to, until the process `pid` has ended.

    When a mount namespace ends, its last process unmounts the FUSE file systems and asks their servers. If
    that last process is such a server, killed, it waits for its own answer for ever, and every sync() of the
    machine waits too."""
    return subprocess.Popen([*entering, sys.executable, "-c", AWAIT_END, str(pid)],
                            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                            start_new_session=True)
