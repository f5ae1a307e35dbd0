"""A server that boots from a disk of its own, or from a rescue system instead.

    with QemuServer() as server:                   # or UmlServer
        disk, other = server.disk(8 << 30), server.disk(4 << 30)
        server.start()                             # the rescue system: the usual image of machines
        ...                                        # install the server's system on the first disk
        server.stop(); server.is_rescue = False; server.start()
        server.cut(); server.replace(disk)         # an empty disk in its place

Inside, the first disk is /dev/sda in either system.
"""
import pathlib
import shutil

from lab.virtual.machine import MachineError
from lab.virtual.qemu import QemuMachine
from lab.virtual.uml import UmlMachine

STARTER = pathlib.Path(__file__).with_name("start-from-disk")
FIRMWARE = pathlib.Path("/usr/share/OVMF")
UDEV_RULE = '/etc/udev/rules.d/50-disks-of-a-server.rules'


def replace(machine, disk, size):
    """Removes a disk from a machine that is off, and puts an empty one of `size` bytes in its place."""
    if machine.is_on():
        raise MachineError("a disk can be replaced only while the machine is off")
    disk.path.unlink()
    with open(disk.path, "wb") as file:
        file.truncate(size)


class QemuServer(QemuMachine):
    """A server whose firmware, SeaBIOS or UEFI, starts the boot loader of the first disk."""

    is_rescue = True
    is_uefi = False

    def device(self, number):
        """The name of a disk. The first is the only SCSI disk, as the kernel names disks in no fixed
        order."""
        return f"/dev/disk/by-id/virtio-disk{number}" if number else "/dev/sda"

    def boot(self):
        return [*self._firmware(), "-device", "virtio-scsi-pci", *(super().boot() if self.is_rescue else [])]

    def drive(self, file, form, name, device="virtio-blk-pci"):
        if name == "disk0":
            device = "scsi-hd" if self.is_rescue else "scsi-hd,bootindex=0"
        return super().drive(file, form, name, device)

    def _firmware(self):
        """The options for a UEFI. It stores its variables, such as the boot order, in a file beside the
        disks."""
        if not self.is_uefi:
            return []
        variables = self.directory / "variables"
        if not variables.exists():
            shutil.copy(FIRMWARE / "OVMF_VARS_4M.fd", variables)
        return ["-drive", f"if=pflash,format=raw,readonly=on,file={FIRMWARE / 'OVMF_CODE_4M.fd'}",
                "-drive", f"if=pflash,format=raw,file={variables.name}"]

    def prepare_rescue(self):
        """Prepares the rescue system. Nothing to do: the names of the disks are right already."""


class UmlServer(UmlMachine):
    """A server without firmware and boot loader: a script on the root of the rescue system does the work of
    an initramfs, with the kernel that is already running."""

    is_rescue = True

    def __init__(self, source=None, **options):
        super().__init__(**options)
        self.source = source # an image, attached read-only as a disk after the others

    def command(self):
        source = [f"ubd{len(self.disks) + 1}r={self.source}"] if self.source else []
        start = [] if self.is_rescue else ["init=/usr/local/sbin/start-from-disk"]
        return [*super().command(), *source, *start]

    def prepare_rescue(self):
        """Prepares the rescue system, which the server's system is a copy of: adds names for the disks, and
        the script."""
        rules = "".join(f'KERNEL=="ubd{chr(ord("b") + number)}*", SYMLINK+="sd{chr(ord("a") + number)}%n"\n'
                        for number in range(len(self.disks)))
        self.run(f"cat >{UDEV_RULE} && udevadm control --reload && udevadm trigger --settle", input=rules)
        self.put(STARTER, "/usr/local/sbin/start-from-disk")
        self.run("chmod", "755", "/usr/local/sbin/start-from-disk")
