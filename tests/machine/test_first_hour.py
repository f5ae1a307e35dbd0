"""docs/first-hour.md: its commands, as printed, in a machine with Debian and the packages.

The page's empty disk, /dev/sdb, is a link to the machine's second disk. Nothing can be downloaded in the
machine: the dependencies of the packages, and the target, are in the image.
"""
import json

import pytest

from lab.virtual import installation
from pages import ROOT, SECONDS, Page, check_blocks

DISKS = (9 << 30,)
PAGE = Page(ROOT / "docs" / "first-hour.md")
BY_HAND = Page(ROOT / "docs" / "provisioning.md")
CERTIFICATES = ("An authority", "The agent's certificate", "A device's certificate",
                "Whether they are right")
VOLUMES = {"/data", "/files"}
RESTART = "systemctl reboot\n"

pytestmark = pytest.mark.nightly


@pytest.fixture(scope="module")
def packages():
    """The packages, which are made before the machine starts, so that it sees them."""
    return " ".join(map(str, installation.packages()))


@pytest.fixture(scope="module")
def server(packages, machine):
    """A machine with the packages and an empty disk of that name; the target's service isn't masked."""
    machine.run("mkdir /srv/packages && "
                f"cp {packages} /srv/packages/ && "
                "systemctl unmask tgt && systemctl enable tgt && "
                """echo 'KERNEL=="ubdb", SYMLINK+="sdb"' >/etc/udev/rules.d/50-empty-disk.rules && """
                "udevadm control --reload && udevadm trigger --settle /dev/ubdb")
    return machine


@pytest.fixture(scope="module")
def execute(server):
    def run(script):
        server.run("cat >/root/script", input=script)
        done = server.run("bash /root/script 2>&1", check=False, timeout=SECONDS)
        return done.returncode, done.stdout
    return run


@pytest.fixture
def backups(server):
    """The type of the last backup, by mount point."""
    def types():
        shown = json.loads(server.run("bekctl", "backups", "--json").stdout)
        return {one["mountPoint"]: one["type"] for one in shown["backups"]}
    return types


def check_page(title, execute):
    return check_blocks(PAGE[title], execute)


def test_install(execute, server):
    """Services without a certificate aren't started, and no unit has failed."""
    check_page("Packages", execute)
    assert server.run("systemctl", "is-active", "bekd", check=False).stdout == "inactive\n"
    assert server.run("systemctl", "list-units", "--failed", "--no-legend", "--plain").stdout == ""


def wait_until_answering(server):
    """Waits until the agent answers; a reader spends that time reading. Fails with the tool's output."""
    server.run("for _ in $(seq 60); do ! bekctl status >/dev/null || break; sleep 0.5; done; bekctl status")


def test_certificates(execute, server):
    make, start, look = PAGE["Certificates"]
    check_blocks([make], execute)
    by_hand = [block for title in CERTIFICATES for block in BY_HAND[title]]
    check_blocks(by_hand, lambda script: execute("cd /root/trial\n" + script))
    check_blocks([start], execute)
    wait_until_answering(server)
    check_blocks([look], execute)


def test_pairing(execute):
    [printed] = check_page("Pairing", execute)
    assert "device 4711" in printed


def test_volumes(execute):
    _made, shown = check_page("Volumes, and a place for their images", execute)
    assert all(mount_point in shown for mount_point in VOLUMES)


def test_first_backup(execute, backups):
    check_page("The first backup", execute)
    assert backups() == dict.fromkeys(VOLUMES, "FULL")
    check_page("Looking at an image", execute)


def test_next_backup(execute, backups):
    check_page("The next backup", execute)
    assert backups() == dict.fromkeys(VOLUMES, "INCREMENTAL")
    check_page("Looking at an image", execute)


def test_restart(execute, server, backups):
    restart, look, backup = PAGE["A restart"]
    assert restart.text == RESTART
    server.reboot()
    wait_until_answering(server)
    check_blocks([look], execute)
    check_blocks([backup], execute)
    assert backups() == dict.fromkeys(VOLUMES, "INCREMENTAL")
    check_page("Looking at an image", execute)


def test_upgrade_and_removal(execute, server):
    check_page("Upgrading, and getting rid of it", execute)
    left = server.run("ls", "-A", "/data", "/files").stdout
    assert ".tolvu" not in left
    assert server.run("test", "-e", "/etc/tolvu", check=False).returncode == 1
    assert "era" not in server.run("dmsetup", "table").stdout


def test_all_of_the_page_was_run():
    """Each heading with commands has a test above."""
    assert PAGE.headings == ["Packages", "Certificates", "Pairing", "Volumes, and a place for their images",
                             "The first backup", "Looking at an image", "The next backup", "A restart",
                             "Upgrading, and getting rid of it"]
