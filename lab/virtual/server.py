"""A server that starts from a disk of its own, and the rescue system that it can be started from instead.

    with QemuServer() as server:                   # or UmlServer
        disk, other = server.disk(8 << 30), server.disk(4 << 30)
        server.start()                             # the rescue system: the image of machines, as always
        ...                                        # somebody makes the server's system on the first disk
        server.stop(); server.is_rescue = False; server.start()
        server.cut(); server.replace(disk)         # another one in its place, with nothing on it

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
    """Takes a disk out of a machine that is off, and puts a bare one of so many bytes in its place."""
    if machine.is_on():
        raise MachineError("a disk can be replaced only while the machine is off")
    disk.path.unlink()
    with open(disk.path, "wb") as file:
        file.truncate(size)


class QemuServer(QemuMachine):
    """Its firmware, SeaBIOS or a UEFI, starts the boot loader of the first disk."""

    is_rescue = True
    is_uefi = False

    def device(self, number):
        """The first is the only one of its kind, as the kernel gives names in no order."""
        return f"/dev/disk/by-id/virtio-disk{number}" if number else "/dev/sda"

    def boot(self):
        return [*self._firmware(), "-device", "virtio-scsi-pci", *(super().boot() if self.is_rescue else [])]

    def drive(self, file, form, name, device="virtio-blk-pci"):
        if name == "disk0":
            device = "scsi-hd" if self.is_rescue else "scsi-hd,bootindex=0"
        return super().drive(file, form, name, device)

    def _firmware(self):
        """A UEFI remembers what it has been told to start from in a file beside the disks."""
        if not self.is_uefi:
            return []
        variables = self.directory / "variables"
        if not variables.exists():
            shutil.copy(FIRMWARE / "OVMF_VARS_4M.fd", variables)
        return ["-drive", f"if=pflash,format=raw,readonly=on,file={FIRMWARE / 'OVMF_CODE_4M.fd'}",
                "-drive", f"if=pflash,format=raw,file={variables.name}"]

    def dress(self):
        """In the rescue system: all names are there already."""


class UmlServer(UmlMachine):
    """There is neither firmware nor boot loader: a script on the rescue system's root does what an initramfs
    does, with the kernel that is there already."""

    is_rescue = True

    def __init__(self, source=None, **options):
        super().__init__(**options)
        self.source = source # an image, to be read only: a disk behind the others

    def command(self):
        source = [f"ubd{len(self.disks) + 1}r={self.source}"] if self.source else []
        start = [] if self.is_rescue else ["init=/usr/local/sbin/start-from-disk"]
        return [*super().command(), *source, *start]

    def dress(self):
        """In the rescue system, which the server's is a copy of: names the disks, and brings the script."""
        rules = "".join(f'KERNEL=="ubd{chr(ord("b") + number)}*", SYMLINK+="sd{chr(ord("a") + number)}%n"\n'
                        for number in range(len(self.disks)))
        self.run(f"cat >{UDEV_RULE} && udevadm control --reload && udevadm trigger --settle", input=rules)
        self.put(STARTER, "/usr/local/sbin/start-from-disk")
        self.run("chmod", "755", "/usr/local/sbin/start-from-disk")
