"""A server that is lost with its disk and restored as docs/restore.md says, on machines of several kinds: see
test_dead_server*.py."""
import json
import pathlib
import re
import time

import pytest

from lab.services import wait_until
from lab.virtual import installation
from lab.virtual.server import replace
from pages import ROOT, SH, Page, check_blocks

INSIDE = pathlib.Path(__file__).with_name("inside") / "server.py"
PAGE = Page(ROOT / "docs" / "restore.md")
REPORT = ROOT / "build" / "release" / "dead-server.txt"
DISK, PERSISTENT_DISK = 5 << 30, 8 << 30
SECONDS = 1800
PROMPT = "db1 login:"
APPLIANCE = "127.0.0.1 appliance.example.org\n"
PACKAGES = ("bek-restore", "libzephane0")
# One of the audits has a timer that fires at once.
AUDITS = """set -e
mkdir -p /etc/tolvu/bek/audit /etc/systemd/system/bek-audit@data.timer.d
echo 'VOLUME=/
IMAGE=/kept/images/root' >/etc/tolvu/bek/audit/root.conf
echo 'VOLUME=/data
IMAGE=/kept/images/data' >/etc/tolvu/bek/audit/data.conf
echo '[Timer]
OnCalendar=
OnActiveSec=1
RandomizedDelaySec=0' >/etc/systemd/system/bek-audit@data.timer.d/soon.conf
systemctl daemon-reload
systemctl enable --now bek-audit@root.timer
systemctl start bek-audit@root
systemctl start bek-audit@data.timer
"""


def blocks(title, *kinds):
    """The blocks of these kinds below a heading of the page."""
    found = [block for block in PAGE.blocks if block.heading == title and block.kind in kinds]
    assert found, f"nothing of {kinds} below {title!r}"
    return found


class Server:
    """The machine, and the commands that inside/server.py runs in it."""

    def __init__(self, machine):
        self.machine = machine
        self.disk, self.persistent_disk = machine.disks
        self._console = 0
        self._target = None

    def inside(self, *words):
        done = self.machine.run("/usr/bin/python3", "-B", INSIDE, *map(str, words), timeout=SECONDS,
                                check=False)
        assert done.returncode == 0, f"{words}:\n{done.stdout}{done.stderr}"
        return json.loads(done.stdout) if done.stdout else None

    def make(self, source="", line=""):
        """Makes the server from a rescue system. The server is a copy of that, except for its packages."""
        self.machine.prepare_rescue()
        self.inside("make", self.disk.device, self.persistent_disk.device, source, line,
                    *installation.packages())

    def start(self, *, is_rescue=False):
        """Starts the server from its disk, or the rescue system."""
        if self.machine.is_on():
            self.machine.stop()
        self.machine.is_rescue = is_rescue
        console = self.machine.directory / "console"
        self._console = console.stat().st_size if console.exists() else 0
        self.machine.start()

    def wait_for_prompt(self):
        """Waits for a login prompt on the console, since the last start."""
        def is_there():
            text = (self.machine.directory / "console").read_bytes()[self._console:]
            return PROMPT in text.decode(errors="replace")
        wait_until(is_there, SECONDS, "a prompt to log in at")

    def wait_for_line(self, unit, text):
        """Waits for a text in what a unit has written to the journal."""
        def is_there():
            journal = self.machine.run("journalctl", f"--unit={unit}", "--output=cat", check=False).stdout
            return text in journal
        wait_until(is_there, SECONDS, f"{text!r} from {unit}")

    def lose_disk(self, size):
        """Cuts the power and replaces the disk by an empty one: the whole disk fails at once."""
        self.machine.cut()
        replace(self.machine, self.disk, size)

    def start_rescue(self):
        """Starts the rescue system, from which the appliance can be reached, and which has the packages."""
        self.start(is_rescue=True)
        self.machine.prepare_rescue()
        packages = " ".join(map(str, installation.packages(PACKAGES)))
        self.machine.run(f"mkdir -p /kept /srv/packages && mount LABEL=kept /kept && "
                         f"cp {packages} /srv/packages/ && cat >>/etc/hosts", input=APPLIANCE)
        self._target = self.machine.begin("/usr/bin/python3", "-B", INSIDE, "serve", text=True)
        assert self._target.stdout.readline() == "ready\n"

    def execute(self, script):
        self.machine.run("cat >/root/script", input=script)
        done = self.machine.run("bash /root/script 2>&1", check=False, timeout=SECONDS)
        return done.returncode, done.stdout

    def follow(self, *of_the_page):
        """Runs blocks of the page, after the block that sets the address of the images in the shell."""
        return check_blocks([where_the_images_are(), *of_the_page], self.execute)[1:]

    def backup(self, kind, verb="backup"):
        outcome = self.inside(verb, kind)
        assert outcome["state"] == "finished", outcome["log"]
        return outcome

    def page(self):
        """The answer of the server's web service."""
        return self.machine.run("curl", "--silent", "--show-error", "--retry", "60", "--retry-delay", "1",
                                "--retry-connrefused", "http://127.0.0.1/", timeout=SECONDS).stdout


def where_the_images_are():
    return next(block for block in blocks("A rescue system", SH) if "BEK_RESTORE_SECRET" in block.text)


class Scenario:
    """The tests of a machine of one kind, in order: each continues where the previous one ended."""

    NEW_DISK = DISK
    BOOT_LOADER = ()
    LARGER = False

    def make(self, new_machine):
        """A Server that is off, made and ready to start from its disk."""
        raise NotImplementedError

    @pytest.fixture(scope="class")
    def server(self, request, new_machine):
        return request.cls().make(new_machine)

    def test_the_server_is_protected(self, server):
        server.start()
        server.wait_for_prompt()
        assert server.page() == "the page of the server\n"
        server.inside("pair")
        check_blocks(blocks("Before it happens", SH), server.execute)
        server.inside("change", 1)
        assert set(server.backup("full")["types"].values()) == {"full"}
        server.machine.run("cp -a /root/layout /kept/")
        server.machine.run("systemctl start tolvubd-initramfs.service 2>/dev/null || true", timeout=SECONDS)
        server.inside("change", 2)
        types = server.backup("incremental", "verify")["types"]
        assert set(types.values()) == {"incremental"}, types

    def test_the_server_comes_back(self, server):
        server.lose_disk(self.NEW_DISK)
        begin = time.monotonic()
        server.start_rescue()
        check_blocks(blocks("A rescue system", SH), server.execute)
        server.follow(*blocks("Without the saved layout", f"{SH} get"))
        server.machine.run("cd /root && diff -r /kept/layout layout && diff layout/fstab found/fstab && "
                           "grep 'id = ' layout/server.lvm >a && grep 'id = ' found/server.lvm | diff a -")
        self.make_volumes(server)
        self.interrupt(server)
        server.follow(*blocks("The volumes", SH))
        spent = time.monotonic() - begin
        same = server.inside("compare")
        begin = time.monotonic() - spent
        server.follow(*blocks("What the agent has left", SH),
                      *blocks("The boot loader", SH, *self.BOOT_LOADER))
        server.start()
        server.wait_for_prompt()
        report(f"{type(self).__name__}: {time.monotonic() - begin:.0f} s from a bare disk to a prompt to log "
               f"in at; the same files: {same}")
        assert all(same.values())

    def make_volumes(self, server):
        new_disk = blocks("The new disk", SH)
        if self.LARGER:
            new_disk[1:1] = blocks("Another size of disk", f"{SH} larger")
            new_disk += blocks("Another size of disk", f"{SH} larger behind LVM")
        server.follow(*new_disk)

    def interrupt(self, server):
        """Kills a restore in the middle; what follows continues from there."""
        status, printed = server.execute(
            f"{where_the_images_are().text}\n"
            'timeout --signal=KILL 3 bek-restore write "$images/1" /dev/server/root')
        assert status == 137, printed

    def test_its_service_answers(self, server):
        assert server.page() == "the page of the server\n"
        failed = server.machine.run("systemctl", "list-units", "--failed", "--no-legend", "--plain").stdout
        assert failed == ""
        assert server.machine.run("swapon", "--noheadings", "--show=NAME").stdout.strip()

    def test_its_backups_go_on(self, server):
        server.inside("change", 3)
        first = blocks("The first start", f"{SH} server")
        check_blocks(first[:1], server.execute)
        types = server.backup("incremental", "verify")["types"]
        assert set(types.values()) == {"differential"}, types
        [reasons] = check_blocks(first[1:], server.execute)
        assert len(re.findall("DIFFERENTIAL MERGE", reasons)) >= len(types), reasons
        server.inside("change", 4)
        assert set(server.backup("incremental")["types"].values()) == {"incremental"}

    def test_its_images_are_audited(self, server):
        """Audits the images of the logical volumes, one by hand and one by its timer; the backups continue as
        before."""
        installation.install(server.machine, installation.packages(PACKAGES))
        server.machine.run(AUDITS, timeout=SECONDS)
        for name in ("root", "data"):
            server.wait_for_line(f"bek-audit@{name}", "Nothing is wrong in the sample.")
        journal = server.machine.run("journalctl", "--unit=bek-audit@*", "--output=cat").stdout
        clean = re.findall("^unchanged +[1-9][0-9]* of .*, 0 differ;", journal, re.MULTILINE)
        assert len(clean) == 2, journal
        assert server.machine.run("systemctl", "is-active", "bek-audit@root.timer").stdout == "active\n"
        server.inside("change", 5)
        assert set(server.backup("incremental")["types"].values()) == {"incremental"}


def report(line):
    """Prints a line, to be seen in the test's output, and stores it in a file."""
    print(line)
    with open(REPORT, "a", encoding="ascii") as file:
        file.write(f"{line}\n")
