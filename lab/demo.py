"""A tour of the agent on one machine: each step is done with the real daemon, and what it shows is printed.

Run by scripts/demo, inside lab/namespace.
"""
import contextlib
import os
import re
import sqlite3
import sys
import time

from lab.daemon import DATABASE, LOGS, PID_FILE, READY_LINE, Daemon, require_private_site, stored_pid

WIDTH = 100
LAST_LINES = 3


class StepFailed(Exception):
    """A step didn't show what it should; the text says what it showed."""


def check(condition, text):
    if not condition:
        raise StepFailed(text)


def show(text):
    for line in str(text).splitlines():
        print(f"  | {line}", flush=True)


class Tour:
    """What the steps hand to each other."""

    def __init__(self):
        self.daemon = Daemon(foreground=False)
        self.shown = 0

    def show_new_log(self):
        """Prints the complete lines that the log has got since the last time."""
        new = self.daemon.log[self.shown:]
        new = new[:new.rfind("\n") + 1]
        self.shown += len(new)
        show(new)


def start_daemon(tour):
    """Start the daemon in the background"""
    tour.daemon.start()
    tour.daemon.wait_for(lambda: tour.show_new_log() or READY_LINE in tour.daemon.log, "ready agent")
    tour.show_new_log()
    return f"PID {tour.daemon.pid}"


def look_at_pid_file(tour):
    """Look at the PID file"""
    show(f"{PID_FILE}: {PID_FILE.read_text()}")
    check(stored_pid() == tour.daemon.pid, f"{PID_FILE} is not the daemon's, {tour.daemon.pid}")
    with open(f"/proc/{tour.daemon.pid}/status", encoding="ascii") as status:
        memory = int(re.search(r"VmRSS:\s+(\d+) kB", status.read())[1])
    return f"running, {memory / 1024:.1f} MiB"


def look_at_database(_tour):
    """Look at what it has stored"""
    with contextlib.closing(sqlite3.connect(f"file:{DATABASE}?mode=ro", uri=True)) as connection:
        [(uuid,)] = connection.execute("select value from config where key = 'agentUUID'")
        [(version,)] = connection.execute("pragma user_version")
    show(f"{DATABASE}: schema version {version}\nagent UUID: {uuid}")
    check(version == 3, f"schema version {version}, not 3")
    return f"schema {version}, UUID {uuid[:8]}..."


def stop_daemon(tour):
    """Stop it by SIGTERM"""
    status = tour.daemon.stop()
    tour.show_new_log()
    check(status == 0, f"exit status {status}")
    check(not tour.daemon.errors, tour.daemon.errors)
    return f"exit status {status}"


def look_at_last_lines(_tour):
    """Look at the last lines of its log"""
    path = max(LOGS.glob("bek_*.log"))
    lines = path.read_text().splitlines()
    show("\n".join([f"{path}:", *lines[-LAST_LINES:]]))
    check(lines[-1].endswith("Agent daemon stopped"), f"the last line is {lines[-1]!r}")
    return f"{len(lines)} lines"


STEPS = [start_daemon, look_at_pid_file, look_at_database, stop_daemon, look_at_last_lines]


def run_steps(tour):
    """Runs the steps until one fails; returns (step, result, seconds) of each."""
    rows = []
    for number, step in enumerate(STEPS, 1):
        print(f"\n{number}/{len(STEPS)} {step.__doc__}", flush=True)
        begin = time.monotonic()
        try:
            result = step(tour)
        except (StepFailed, AssertionError, OSError, sqlite3.Error, TimeoutError, ValueError) as error:
            print(f"demo: step {number} failed: {step.__doc__}\n{error}", file=sys.stderr)
            return [*rows, (step.__doc__, "FAILED", time.monotonic() - begin)], False
        rows.append((step.__doc__, result, time.monotonic() - begin))
    return rows, True


def print_table(rows):
    widths = [max(len(row[column]) for row in rows) for column in (0, 1)]
    rule = "-" * min(WIDTH, sum(widths) + 11)
    print(f"\n{'step':{widths[0]}}  {'result':{widths[1]}}  seconds\n{rule}")
    for step, result, seconds in rows:
        print(f"{step:{widths[0]}}  {result:{widths[1]}}  {seconds:7.2f}")


def main():
    require_private_site()
    os.umask(0o022)
    tour = Tour()
    try:
        rows, succeeded = run_steps(tour)
    finally:
        tour.daemon.discard()
    print_table(rows)
    return 0 if succeeded else 1


if __name__ == "__main__":
    sys.exit(main())
