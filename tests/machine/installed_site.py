"""A machine on which bekd is installed, started by the service manager and paired, and what must be true of
its backups over restarts, power cuts and upgrades. The tests here run on machines of several kinds: see
test_installed*.py."""
import json
import pathlib

import pytest

from lab.virtual import installation

INSIDE = pathlib.Path(__file__).with_name("inside") / "installed.py"
DISKS = (1 << 30, 4 << 30)
SECONDS = 2400
NEWER = "9.9.9"
BOTH = ("logical", "plain")


def all_of(kind):
    return dict.fromkeys(BOTH, kind)


class Installed:
    """The machine, and the appliance inside of it."""

    def __init__(self, machine, newer):
        self.machine = machine
        self.newer = newer # packages of a later version
        self._seeds = 0
        self.is_tracked = True
        self.ways = {}

    def inside(self, *words):
        done = self.machine.run("/usr/bin/python3", "-B", INSIDE, *map(str, words), timeout=SECONDS,
                                check=False)
        assert done.returncode == 0, f"{words}:\n{done.stdout}{done.stderr}{self.journal('bekd')}"
        return json.loads(done.stdout) if done.stdout else None

    def journal(self, unit):
        """The text that a unit has written to the journal since the machine was started."""
        return self.machine.run("journalctl", "-qb", "-o", "cat", "-u", unit, timeout=SECONDS).stdout

    def change(self):
        self._seeds += 1
        self.inside("change", self._seeds)

    def backup(self, kind="incremental"):
        """Runs a backup that must finish, and whose images must equal its snapshots; returns the types that
        it became."""
        outcome = self.inside("backup", kind)
        assert outcome["state"] == "finished", outcome["log"]
        assert "Could not prevent system sleep" not in outcome["log"]
        assert outcome["blocks"] > 0 and outcome["files"] > 0
        self.ways = outcome["tracked"]
        return outcome["types"]

    def main_process(self):
        """The main PID of bekd, according to the service manager."""
        return self.machine.run("systemctl", "show", "--value", "-p", "MainPID", "bekd").stdout.strip()


class Scenario:
    """The tests of a machine of one kind, `MACHINE`. Tracked volumes must stay tracked, whatever happens
    between two backups."""

    @pytest.fixture(scope="class")
    def installed(self, request, new_machine):
        """Installed as an administrator does it, paired, and with a first backup of both volumes."""
        packages = installation.packages()
        newer = installation.repacked(packages, NEWER)
        machine = new_machine(request.cls.MACHINE, disks=DISKS)
        installed = Installed(machine, newer)
        installation.install(machine, packages)
        installed.inside("make", *(disk.device for disk in machine.disks))
        machine.run("systemctl", "restart", "bekd", timeout=SECONDS)
        installed.inside("pair")
        installed.change()
        assert installed.backup("full") == all_of("full")
        return installed

    @pytest.fixture
    def tracked(self, installed):
        """The same, with both volumes tracked, and changed since the last backup."""
        if not installed.machine.is_on():
            installed.machine.start()
        if not installed.is_tracked:
            assert installed.backup("merge") == all_of("differential")
        installed.change()
        installed.is_tracked = False # set again if the test reaches its end
        yield installed
        installed.is_tracked = True

    def test_goes_on_after_a_restart(self, tracked):
        tracked.machine.reboot()
        expect_to_go_on(tracked)

    def test_goes_on_after_a_power_cut(self, tracked):
        tracked.machine.cut()
        tracked.machine.start()
        expect_to_go_on(tracked)

    def test_is_right_after_a_power_cut_in_the_middle(self, tracked):
        process = tracked.machine.begin("/usr/bin/python3", "-B", INSIDE, "begin", "incremental",
                                        text=True)
        assert process.stdout.readline() == "in the middle\n"
        tracked.machine.cut()
        process.wait(timeout=SECONDS)
        tracked.machine.start()
        tracked.change()
        assert tracked.backup() == all_of("differential")
        tracked.change()
        assert tracked.backup() == all_of("incremental")

    def test_goes_on_over_an_upgrade(self, tracked):
        """Pairing, database and tracking stay, and the new version runs afterwards."""
        before = tracked.main_process()
        installation.install(tracked.machine, tracked.newer)
        assert tracked.machine.run("dpkg-query", "-W", "-f", "${Version}", "bekd").stdout == NEWER
        assert tracked.main_process() not in ("0", before)
        tracked.change()
        assert tracked.backup() == all_of("incremental")

    def test_what_a_minimal_machine_lacks_is_said(self, installed):
        """The services are removed: first udisks2, then the message bus too. This is the last test, as the
        machine stays like that."""
        machine = installed.machine
        machine.run("dpkg --force-depends --remove udisks2 && systemctl restart bekd",
                    timeout=SECONDS)
        assert "There is no udisks2 here" in installed.journal("bekd")
        answer = installed.inside("host")
        assert answer["status"] == 500 and "udisks client" in answer["text"], answer
        machine.run("systemctl mask --now dbus.socket dbus.service && "
                    "rm /run/dbus/system_bus_socket && systemctl restart bekd",
                    timeout=SECONDS)
        assert "There is no D-Bus here" in installed.journal("bekd")
        assert machine.run("systemctl", "is-active", "bekd").stdout == "active\n"


def expect_to_go_on(installed):
    """After a start, the journal mentions both volumes, and the next backup is incremental. One volume
    is tracked by device-mapper, the other by captures."""
    installed.change()
    assert installed.backup() == all_of("incremental")
    assert installed.ways["logical"] == "device-mapper: linear table"
    assert installed.ways["plain"].startswith("capture: ")
    assert "Backup run finished" in installed.journal("bekd"), "the agent's log is in the journal"
    said = installed.journal("bekd-reload").splitlines()
    for name in BOTH:
        assert any(line.endswith(f" (/volumes/{name}): tracked") for line in said), said
