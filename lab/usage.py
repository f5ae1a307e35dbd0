"""The resources that a process uses, according to the kernel."""
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
    """A number from /proc/PID/status; sizes are in KiB."""
    status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii")
    [line] = [line for line in status.splitlines() if line.startswith(f"{name}:")]
    return int(line.split()[1])


def descriptors(pid):
    """The number of open file descriptors."""
    return len(os.listdir(f"/proc/{pid}/fd"))
