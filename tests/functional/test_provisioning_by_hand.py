"""docs/provisioning.md: how an agent and a device get certificates without a service, as printed."""
import stat

import pytest

from lab.daemon import CERTIFICATES, ROOT
from pages import SH, Block, Page, check_blocks, shell_in

PAGE = Page(ROOT / "docs" / "provisioning.md")
WRONG_PIN = r"curl: \(90\) SSL: public key does not match pinned public key"
NO_ANSWER = r"curl: \(52\) Empty reply from server|curl: \(56\)"
FILES = ("An authority", "The agent's certificate", "A device's certificate", "Whether they are right")
CALLS = ("The first call", "Whether it is the right agent")

pytestmark = pytest.mark.bare_site


@pytest.fixture
def execute(tmp_path):
    """Runs a script in one directory, which replaces those of all machines on the page."""
    return shell_in(tmp_path)


def blocks(titles):
    return [block for title in titles for block in PAGE[title]]


def test_no_other_commands():
    """Every command of the page is run here."""
    assert PAGE.headings == [*FILES, *CALLS]


def test_from_nothing_to_a_paired_agent(execute, foreground, database, tmp_path):
    check_blocks(blocks(FILES), execute)
    modes = {path.name: stat.S_IMODE(path.stat().st_mode) for path in CERTIFICATES.iterdir()}
    assert modes == {"server.key": 0o600, "server.pem": 0o644, "ca.crt": 0o644}
    assert stat.S_IMODE((tmp_path / "ca.key").stat().st_mode) == 0o600

    foreground()
    check_blocks(blocks(CALLS), execute)
    assert database("select id from device") == [(4711,)]


@pytest.mark.parametrize("old, new, said", [
    ("type:device'", "type:server'", "Failed to find required metadata in client certificate"),
    ("-subj /CN=4711", "-subj /CN=backup", "Certificate invalid Common Name"),
    ("-subj /CN=4711", "-subj /CN=04711", "Certificate invalid Common Name"),
])
def test_what_the_page_says_of_a_wrong_device(execute, foreground, old, new, said):
    """If a part of the commands is left out, the agent closes the connection, and its log says why."""
    right = blocks(FILES[:3])
    wrong = [block._replace(text=block.text.replace(old, new)) for block in right]
    assert wrong != right
    check_blocks(wrong, execute)
    daemon = foreground()
    with pytest.raises(AssertionError, match=NO_ANSWER):
        check_blocks(PAGE["The first call"], execute)
    assert said in daemon.log


def test_another_issuer(execute, foreground):
    """An authority with the same key but another name isn't accepted."""
    check_blocks(blocks(FILES[:3]), execute)
    other = "openssl req -x509 -new -key ca.key -days 3650 -subj '/CN=Another CA' -out ca.crt\n"
    check_blocks([Block(SH, other), *PAGE["A device's certificate"]], execute)
    daemon = foreground()
    check_blocks([Block(SH, "cp /etc/tolvu/bek/certs/ca.crt ca.crt\n")], execute)
    with pytest.raises(AssertionError, match=NO_ANSWER):
        check_blocks(PAGE["The first call"], execute)
    assert "Certificate issuer mismatch" in daemon.log


def test_a_pin_of_another_key(execute, foreground):
    check_blocks(blocks(FILES[:3]), execute)
    foreground()
    pin, call = PAGE["Whether it is the right agent"]
    other = pin._replace(text=pin.text.replace("/etc/tolvu/bek/certs/server.pem", "device.pem"))
    with pytest.raises(AssertionError, match=WRONG_PIN):
        check_blocks([other, call], execute)
