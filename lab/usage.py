"""What a process uses, as the kernel tells it."""
import os
import pathlib
import typing


class Usage(typing.NamedTuple):
    descriptors: int
    threads: int
    rss_kib: int


def usage(pid):
    return Usage(descriptors(pid), status_number(pid, "Threads"), status_number(pid, "VmRSS"))


def status_number(pid, name):
    """A figure of /proc/PID/status; sizes are in KiB."""
    status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii")
    [line] = [line for line in status.splitlines() if line.startswith(f"{name}:")]
    return int(line.split()[1])


def descriptors(pid):
    """How many are open."""
    return len(os.listdir(f"/proc/{pid}/fd"))
