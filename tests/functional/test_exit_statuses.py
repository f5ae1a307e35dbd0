"""The exit statuses of the programs: each status that a manual page or docs/operations.md lists is provoked,
and no program ends with another one in the same situations."""
import re
import shutil
import subprocess

import pytest

from lab.commands import run
from lab.daemon import DATABASE, ROOT, program
from restore_view_site import make_image, make_loop_nodes, require_nothing_left
from test_manuals import definitions, page, section

SECONDS = 120
ROW = re.compile(r"^\| (\d) \| ", re.MULTILINE)


def documented(name):
    """The statuses that the manual page lists."""
    return {int(status) for status in definitions(section(page(f"{name}.8"), "EXIT STATUS"))}


def status_of(name, *arguments):
    return subprocess.run([program(name), *map(str, arguments)], stdin=subprocess.DEVNULL,
                          capture_output=True, check=False, timeout=SECONDS).returncode


@pytest.fixture
def image(site, directory):
    """An image of an ext4 volume with one file."""
    make_loop_nodes()
    yield make_image(directory, "ext4", lambda root: (root / "note").write_bytes(b"n" * 10_000))
    require_nothing_left()


def damaged(image):
    """A copy of the image in which the directory has an entry for an inode that isn't in use."""
    copy = shutil.copy(image, image.parent / "damaged")
    inode = run("debugfs", "-R", "stat note", copy).split()[1]
    run("debugfs", "-w", "-R", f"clri <{inode}>", copy)
    return copy


def test_the_operations_page_lists_those_of_bekd():
    text = (ROOT / "docs" / "operations.md").read_text(encoding="utf-8")
    table = text[text.index("| exit status | when |"):].split("\n\n")[0]
    assert {int(status) for status in ROW.findall(table)} == documented("bekd")


def test_bekd(foreground, fail_to_start):
    daemon = foreground()
    daemon.stop()
    usage = status_of("bekd", "--help")
    DATABASE.write_bytes(b"no database at all" * 100)
    assert {daemon.status, usage, fail_to_start().status} == documented("bekd")


def test_bek_restore(image):
    found = {"good image": status_of("bek-restore", "check", image),
             "damaged image": status_of("bek-restore", "check", damaged(image)),
             "no image": status_of("bek-restore", "check", image.parent / "missing"),
             "wrong option": status_of("bek-restore", "check", "--nonsense", image)}
    assert found == {"good image": 0, "damaged image": 3, "no image": 1, "wrong option": 2}
    assert set(found.values()) == documented("bek-restore")


def test_bek_usedmap(image):
    found = {"volume": status_of("bek-usedmap", "--summary", image),
             "no volume": status_of("bek-usedmap", "--summary", image.parent / "missing"),
             "wrong option": status_of("bek-usedmap", "--nonsense", image)}
    assert found == {"volume": 0, "no volume": 1, "wrong option": 2}
    assert set(found.values()) == documented("bek-usedmap")


def test_bekctl(agent, appliance):
    found = {"agent": status_of("bekctl", "status"), "wrong command": status_of("bekctl", "nonsense")}
    agent.stop()
    found["no agent"] = status_of("bekctl", "status")
    assert found == {"agent": 0, "no agent": 1, "wrong command": 2}
    assert set(found.values()) == documented("bekctl")


def test_tolvuctl(fresh_driver):
    found = {"list": status_of("tolvuctl", "list"), "no device": status_of("tolvuctl", "destroy", 7),
             "wrong command": status_of("tolvuctl", "nonsense")}
    assert found == {"list": 0, "no device": 1, "wrong command": 2}
    assert set(found.values()) == documented("tolvuctl")


def test_zephaned(directory):
    config = directory / "zephaned.json"
    found = {"help": status_of("zephaned", "--help"),
             "no configuration": status_of("zephaned", "--config", config, "--check"),
             "wrong option": status_of("zephaned", "--nonsense")}
    assert found == {"help": 0, "no configuration": 1, "wrong option": 2}
    assert set(found.values()) == documented("zephaned")
