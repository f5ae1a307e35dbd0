"""Where the daemon looks for the snapshot driver; that depends on the library that it loads at its start."""
import pathlib

import pytest

from lab.appliance_client import volume
from lab.daemon import program

MODULES = pathlib.Path("/sys/module")


@pytest.fixture
def agent(foreground):
    """A daemon with the library of the kernel's driver installed in place of the stand-in."""
    library = program("kernel-driver")
    assert (library / "libtolvubd.so").exists()
    return foreground(environment={"LD_LIBRARY_PATH": str(library)})


def backup(appliance):
    """The status and text of the answer to a backup request."""
    status, _, text = appliance.backup([volume("one", target="127.0.0.1:3260", name="iqn.2026-01.example:one",
                                               lun=1)])
    return status, text


def test_kernel_without_the_driver(driver, agent, appliance):
    """The status files of the stand-in are ignored."""
    assert appliance.driver().content == {"driverStatus": "Not Available"}
    assert backup(appliance) == (
        500, "Could not open driver version file. tolvubd is not present on your system!")


def test_kernel_with_the_driver(tmpfs, agent, appliance):
    tmpfs(MODULES, "mode=755")
    (MODULES / "tolvubd").mkdir()
    assert backup(appliance) == (
        500, 'Could not open driver version file "/sys/module/tolvubd/version". '
             "Error: No such file or directory")
    (MODULES / "tolvubd" / "version").write_text("0.9.16\n", encoding="ascii")
    assert backup(appliance)[0] == 201
    agent.wait_for_log("Driver version: 0.9.16\n")
