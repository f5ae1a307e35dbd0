"""Runs the programs that are raced, and measures processor time."""
import os
import pathlib
import subprocess
import tempfile
import time

TICKS = os.sysconf("SC_CLK_TCK")


def processor_seconds(pid):
    """The processor seconds that a process and the children that it has waited for have used so far."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rpartition(")")[2].split()
    return sum(map(int, fields[11:15])) / TICKS


def timed(command, text=""):
    """Runs a program on this standard input; returns its output, the seconds that it took, and its processor
    seconds. The program has a session of its own, like the daemon, as the kernel shares the processors out
    among sessions."""
    with tempfile.TemporaryFile("w+") as given, tempfile.TemporaryFile("w+") as output:
        given.write(text)
        given.seek(0)
        begin = time.monotonic()
        process = subprocess.Popen(command, stdin=given, stdout=output, stderr=subprocess.STDOUT,
                                   start_new_session=True)
        _, status, usage = os.wait4(process.pid, 0)
        seconds = time.monotonic() - begin
        process.returncode = os.waitstatus_to_exitcode(status)
        output.seek(0)
        printed = output.read()
    if process.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, command))}: {process.returncode}\n{printed}")
    return printed, seconds, usage.ru_utime + usage.ru_stime
