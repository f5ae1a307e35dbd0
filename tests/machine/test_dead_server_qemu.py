"""docs/restore.md: a server that has lost its disk is restored, including its boot loader, with BIOS and with
UEFI, with Debian's own kernel and on a larger disk."""
import re

import pytest

from lab.virtual import images
from lab.virtual.qemu import kernel_line
from lab.virtual.server import QemuServer, UmlServer
from pages import SH
from server_site import DISK, PERSISTENT_DISK, Scenario, Server, blocks

pytestmark = pytest.mark.nightly


class TestDeadServerWithItsBootLoader(Scenario):
    NEW_DISK = DISK + (1 << 30)
    BOOT_LOADER = (f"{SH} bios",)
    LARGER = True

    def make(self, new_machine):
        """Makes the server on user-mode Linux, which takes a tenth of the time, and moves the disks."""
        made = Server(new_machine(UmlServer, disks=(DISK, PERSISTENT_DISK),
                                  source=images.get(QemuServer.kind).root))
        made.make(source="/dev/ubdd", line=kernel_line())
        made.machine.stop()
        machine = new_machine(QemuServer, disks=(DISK, PERSISTENT_DISK), is_on=False)
        for old, new in zip(made.machine.disks, machine.disks):
            old.path.rename(new.path)
        return Server(machine)

    def test_an_uefi_finds_its_boot_loader(self, server):
        server.machine.is_uefi = True
        server.start()
        server.wait_for_prompt()
        assert server.machine.run("test", "-d", "/sys/firmware/efi", check=False).returncode == 0
        assert server.page() == "the page of the server\n"

    def test_an_esp_without_an_image_is_made_anew(self, server):
        """The rescue system makes the ESP; UEFI has booted that system, too."""
        server.start_rescue()
        server.machine.run("cp -a /kept/layout /root/ && vgchange --quiet --activate y server && "
                           "wipefs --quiet --all /dev/sda2")
        server.follow(*blocks("No image of the ESP", SH + " esp"))
        server.follow(*blocks("The boot loader", f"{SH} uefi"))
        server.start()
        server.wait_for_prompt()
        listed = server.machine.run("efibootmgr").stdout
        assert re.search(r"^Boot[0-9A-F]{4}\* debian\b", listed, re.MULTILINE), listed
