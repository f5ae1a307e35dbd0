"""An installed bekd on a machine with Debian's own kernel, where AppArmor is enabled as in Debian."""
import pytest

from installed_site import Scenario
from lab.virtual.qemu import QemuMachine

pytestmark = pytest.mark.nightly


class TestInstalledOnDebiansKernel(Scenario):
    MACHINE = QemuMachine

    def test_apparmor_is_on_and_has_refused_nothing(self, installed):
        machine = installed.machine
        assert machine.run("cat", "/sys/module/apparmor/parameters/enabled").stdout == "Y\n"
        assert "DENIED" not in machine.run("journalctl -qk -o cat").stdout
