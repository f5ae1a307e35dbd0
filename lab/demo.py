"""A tour of the agent on one machine: each step is done with the real daemon, and what it shows is printed.

Lines behind "$" are what a person would type, those behind "|" what there is to be seen. Run by scripts/demo,
inside lab/namespace.
"""
import contextlib
import json
import os
import pathlib
import re
import shlex
import shutil
import socket
import sqlite3
import subprocess
import sys
import textwrap
import time

from lab.appliance_client import Appliance, NoAnswer, Unreachable
from lab.certificates import Authority, CertificateError
from lab.certservice import HOST, CertificateService, store_device, trust
from lab.daemon import (BASE, DATABASE, PID_FILE, ROOT, Daemon, program, require_private_site,
                        stored_pid)
from lab.driver_facts import hide_driver, show_driver
from lab.services import ServiceError
from lab.site import Site
from lab.snapshots import MOUNT_ROOT, Session, SessionError

WIDTH = 100
SECONDS = 60
LAB = pathlib.Path("/run/lab")
DEVICE = 4711
STRANGER = 815
LOG_DATE = re.compile(r"^\d{4}-\d\d-\d\d (?=\d\d:)", re.MULTILINE)
SNAPSHOTTED = ("data", "files")
COW_MIB = 100
OPTION, VALUE = "backup.heartbeat.timeoutMinutes", 5
VOLUME = "1c9a7f0e-7a41-4a5e-9d0c-2f0b64b1a7de"


class StepFailed(Exception):
    """A step didn't show what it should; the text says what it showed."""


def check(condition, text):
    if not condition:
        raise StepFailed(text)


def show(text):
    for line in str(text).splitlines():
        for piece in textwrap.wrap(line, WIDTH - 4, subsequent_indent=" " * 8, break_on_hyphens=False):
            print(f"  | {piece}", flush=True)


def show_command(words, more=""):
    """A command as it would be typed, broken before an option where it is long."""
    line = "  $"
    for part in re.split(r" (?=-)", shlex.join(words)): # an option and its value
        if len(line) + len(part) > WIDTH - 4:
            print(line + " \\")
            line = "       "
        line += " " + part
    print(line + more, flush=True)


class Tour:
    """What the steps hand to each other."""

    def __init__(self, lasting):
        self.lasting = lasting # what is ended when the tour is over
        self.daemon = Daemon(foreground=False)
        self.lasting.callback(self.daemon.discard)
        self.authority = None
        self.site = None
        self.session = None
        self.backup = None
        self.shown = 0

    def show_new_log(self, *, quietly=False):
        """Prints the complete lines that the log has got since the last time, without their dates."""
        new = self.daemon.log[self.shown:]
        new = new[:new.rfind("\n") + 1]
        self.shown += len(new)
        if not quietly:
            show(LOG_DATE.sub("", new))
        return new

    def appliance(self, *arguments, status=0, only=""):
        """Runs lab/appliance, and shows what was typed and what came of it: lines that contain `only`."""
        show_command(["lab/appliance", *arguments], f" | grep {only}" if only else "")
        self.show_new_log(quietly=True)
        done = subprocess.run([ROOT / "lab" / "appliance", *arguments], capture_output=True, text=True,
                              check=False, timeout=SECONDS)
        text = "\n".join(line for line in (done.stdout + done.stderr).splitlines() if only in line)
        show(text)
        check(done.returncode == status, f"exit status {done.returncode}, not {status}")
        return text


def set_up_lab(tour):
    """Set up what the agent needs around it"""
    tour.authority = Authority(LAB)
    for number, name in ((DEVICE, "device"), (STRANGER, "stranger")):
        store_device(tour.authority, number, LAB, name)
    trust(tour.authority)
    tour.lasting.enter_context(CertificateService(tour.authority))
    tour.site = tour.lasting.enter_context(Site())
    tour.lasting.callback(hide_driver)
    show_driver()
    show(f"https://{HOST} signs what the agents ask for\n"
         f"{LAB}/device.pem is the certificate of appliance {DEVICE}, which the agent will be paired with\n"
         f"{LAB}/stranger.pem is that of appliance {STRANGER}, a stranger\n"
         "a system bus, a login manager, udev and udisks2, a disk of six volumes, and what shows that a "
         "snapshot driver is loaded")
    return f"{DEVICE} and {STRANGER}, 6 volumes"


def start_daemon(tour):
    """Start the daemon on a machine new to it"""
    show_command(["bekd"])
    tour.daemon.start()
    tour.daemon.wait_until_ready()
    tour.show_new_log()
    return f"PID {tour.daemon.pid}"


def look_at_certificate(_tour):
    """Look at the certificate that it was given"""
    command = ["openssl", "x509", "-in", str(BASE / "certs/server.pem"), "-noout", "-subject", "-issuer"]
    show_command(command)
    text = subprocess.run(command, capture_output=True, text=True, check=True, timeout=SECONDS).stdout
    show(text)
    check(f"CN = {socket.gethostname()}" in text, "the certificate isn't for this machine")
    return f"for {socket.gethostname()}"


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


def pair(tour):
    """Pair it with the appliance"""
    tour.appliance("pair", str(DEVICE))
    log = tour.show_new_log()
    check(f"Pair request from deviceID {DEVICE} accepted" in log, "the log doesn't tell of it")
    return f"with {DEVICE}"


def ask_features(tour):
    """Ask what it can do"""
    text = tour.appliance("features")
    names = re.findall(r'"name": "(\w+)"', text)
    check("secure_pairing" in names, "no secure pairing")
    return f"{len(names)} features"


def describe_size(count):
    return f"{count / (1 << 20):,.0f} MiB"


def volume_row(volume):
    """What the appliance is told of a volume, for a table."""
    state = "mounted" if volume["mounted"] else "-"
    return (volume["label"], volume["device"], volume["filesystem"], describe_size(volume["spaceTotal"]),
            describe_size(volume["spaceFree"]), "read-only" if volume["readonly"] else state,
            ", ".join(volume["mountpoints"]))


def look_at_machine(tour):
    """Look at what the machine has"""
    command = ["lab/appliance", "host"]
    show_command(command)
    done = subprocess.run([ROOT / command[0], *command[1:]], capture_output=True, text=True, check=True,
                          timeout=SECONDS)
    host = json.loads(done.stdout)
    show(f"{host['hostname']}: {host['os']}, {host['cpus']} processors, {describe_size(host['ram'])}\n"
         f"agent {host['agentVersion']}, snapshot driver {host['driverVersion']}")
    volumes = {volume["guid"]: volume for volume in host["volumes"]}
    missing = [partition.name for partition in tour.site.disk if partition.uuid not in volumes]
    check(not missing, f"the agent doesn't know {', '.join(missing)}")
    rows = [("label", "device", "type", "size", "free", "state", "mounted at"),
            *(volume_row(volumes[partition.uuid]) for partition in tour.site.disk)]
    widths = [max(map(len, column)) for column in zip(*rows)]
    show("\n".join("  ".join(map(str.ljust, row, widths)).rstrip() for row in rows))
    return f"{len(rows) - 1} volumes"


def set_option(tour):
    """Set an option, and read it back"""
    tour.appliance("config", f"{OPTION}={VALUE}")
    text = tour.appliance("config", only="heartbeat")
    check(f'"{OPTION}": {VALUE}' in text, f"{OPTION} isn't {VALUE}")
    return f"{VALUE} minutes"


def drop_devices():
    """Lets the driver forget the volumes, so that nothing of the site is held."""
    listing = json.loads(pathlib.Path("/run/tolvubd/info").read_text(encoding="ascii"))
    for device in listing["devices"]:
        subprocess.run([program("tolvuctl"), "destroy", str(device["minor"])], check=True, timeout=SECONDS)


def show_devices():
    show_command(["tolvuctl", "list"])
    show(subprocess.run([program("tolvuctl"), "list"], capture_output=True, text=True, check=True,
                        timeout=SECONDS).stdout)


def take_snapshots(tour):
    """Take a snapshot of two volumes, and change them"""
    partitions = [tour.site.disk[name] for name in SNAPSHOTTED]
    tour.appliance("config", *(f"volumes.{partition.uuid}.cowFileSizeMiB={COW_MIB}"
                               for partition in partitions))
    notes = [pathlib.Path(partition.volume.mount_point, "notes.txt") for partition in partitions]
    for note in notes:
        note.write_text("before\n", encoding="utf-8")
    tour.lasting.callback(drop_devices)
    tour.session = tour.lasting.enter_context(Session(partitions, incremental=False))
    begin = time.monotonic()
    facts = tour.session.start()
    seconds = time.monotonic() - begin
    show_devices()
    for partition, note in zip(partitions, notes):
        note.write_text("after\n", encoding="utf-8")
        old = MOUNT_ROOT / partition.uuid / note.name
        show(f"{note}: {note.read_text(encoding='utf-8').strip()}\n"
             f"{facts[partition.name]['snapshotPath']}, {old}: {old.read_text(encoding='utf-8').strip()}")
        check(old.read_text(encoding="utf-8") == "before\n", "the snapshot has changed")
    return f"2 in {seconds:.1f} s"


def end_snapshots(tour):
    """End them, and see what is tracked until the next"""
    tour.session.end("success")
    show_devices()
    partitions = [tour.site.disk[name] for name in SNAPSHOTTED]
    for partition in partitions:
        pathlib.Path(partition.volume.mount_point, "report.bin").write_bytes(os.urandom(1 << 20))
    changed = {}
    with Session(partitions, incremental=True) as session:
        for name, facts in session.start().items():
            check(facts["incrementalPreserved"], f"{name} wasn't tracked")
            changed[name] = facts["bitmapEntries"] - facts["unchangedBlocks"]
            show(f"{name}: {changed[name]} of {facts['bitmapEntries']} blocks have changed since then")
            check(256 <= changed[name] < facts["bitmapEntries"] // 10, "1 MiB and its metadata were written")
        session.end("success")
    return f"{sum(changed.values())} blocks changed"


def start_backup(tour):
    """Start a backup, of a volume that isn't there"""
    tour.backup = tour.appliance("backup", "--target", "127.0.0.1:3260", "--name",
                                 "iqn.2026-01.example:images", "--volume", f"guid={VOLUME}")
    check(re.fullmatch(r"[0-9a-f-]{36}", tour.backup), "that is no ID of a backup")
    return f"ID {tour.backup[:8]}..."


def watch_backup(tour):
    """Watch it fail, and be told so"""
    tour.appliance("watch", tour.backup, status=1)
    text = tour.appliance("status", tour.backup)
    check('"status": "failed"' in text, "the backup hasn't failed")
    return "failed, as it should"


def read_log(tour):
    """Read through the API why"""
    text = tour.appliance("logs", "--severity", "3")
    check(VOLUME in text, "the log doesn't name the volume")
    return f"{len(text.splitlines())} lines"


def refuse_strangers(tour):
    """Ask as a stranger, and as nobody"""
    text = tour.appliance("--cert", f"{LAB}/stranger.pem", "--key", f"{LAB}/stranger.key", "list", status=1)
    check("HTTP status 401" in text, "no refusal")
    with Appliance(authority=BASE / "certs/ca.crt") as nobody:
        try:
            answer = nobody.backups()
        except NoAnswer as refusal:
            show(f"without a certificate, {refusal}")
            return "401, closed connection"
    raise StepFailed(f"a client without a certificate got an answer: {answer}")


def stop_daemon(tour):
    """Stop it by SIGTERM"""
    show_command(["kill", str(tour.daemon.pid)])
    tour.show_new_log(quietly=True)
    status = tour.daemon.stop()
    log = tour.show_new_log()
    check(status == 0, f"exit status {status}")
    check(not tour.daemon.errors, tour.daemon.errors)
    check(log.endswith("Agent daemon stopped\n"), "the log doesn't end with the stop")
    return f"exit status {status}"


STEPS = [set_up_lab, start_daemon, look_at_certificate, look_at_pid_file, look_at_database, pair,
         ask_features, look_at_machine, set_option, take_snapshots, end_snapshots, start_backup, watch_backup,
         read_log, refuse_strangers, stop_daemon]
FAILURES = (StepFailed, AssertionError, CertificateError, OSError, ServiceError, SessionError, Unreachable,
            ValueError, sqlite3.Error, subprocess.SubprocessError)


def run_steps(tour):
    """Runs the steps until one fails; returns (step, result, seconds) of each."""
    rows = []
    for number, step in enumerate(STEPS, 1):
        print(f"\n{number}/{len(STEPS)} {step.__doc__}", flush=True)
        begin = time.monotonic()
        try:
            result = step(tour)
        except FAILURES as error:
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
    for directory in (LAB, BASE):
        shutil.rmtree(directory, ignore_errors=True)
    with contextlib.ExitStack() as lasting:
        rows, succeeded = run_steps(Tour(lasting))
    print_table(rows)
    return 0 if succeeded else 1


if __name__ == "__main__":
    sys.exit(main())
