"""Machines whose root file system is tracked: the initramfs gives it its layers back before it is mounted."""
import json
import pathlib

from lab.virtual.driver import install
from lab.virtual.qemu import QemuMachine

TRACKED = pathlib.Path(__file__).with_name("tracked.py")
SIZE = 6 << 30
VOLUME = "3G"
SLOW = 1200


class RootedMachine(QemuMachine):
    """One whose root can be elsewhere than on its first disk, which is /kept then. It is started by the
    initramfs that its root holds, as a boot loader does it."""

    def move_root(self, device, name):
        """Makes a copy of the root there; the next start is from that one, by this name."""
        self.run(f"mkfs.ext4 -q -b 4096 {device} && mount {device} /mnt && cp -ax /. /mnt/ && "
                 "mkdir /mnt/kept && "
                 f"echo '{name} / ext4 errors=remount-ro 0 1\n/dev/vda /kept ext4 defaults 0 0' "
                 ">/mnt/etc/fstab && "
                 "umount /mnt", timeout=SLOW)
        self.append = f"root={name}"

    def take_initramfs(self):
        """For the next start, when all is done that changes it."""
        self.run("systemctl", "start", "tolvubd-initramfs.service", timeout=SLOW)
        initrd = self.directory / "initrd"
        initrd.write_bytes(self.run("cat /boot/initrd.img-$(uname -r)", text=False, timeout=SLOW).stdout)
        self.image.initrd = initrd

    def tracked(self, verb):
        return json.loads(self.run("/usr/bin/python3", TRACKED, verb, "root", timeout=SLOW).stdout)["root"]

    def root(self):
        """The device of the root file system, and the kinds of its targets."""
        device = self.run("findmnt", "-no", "SOURCE", "/").stdout.strip()
        table = self.run("dmsetup", "table", device, check=False).stdout
        return device, {line.split()[2] for line in table.splitlines()}


def make(new_machine):
    """One with the driver installed, and with a second disk."""
    machine = new_machine(RootedMachine, disks=(SIZE,))
    install(machine)
    make_initramfs_small(machine)
    return machine


def make_initramfs_small(machine):
    """What is emulated takes minutes for each that has what this machine doesn't need."""
    machine.run("cd /etc/initramfs-tools && printf 'MODULES=list\\nCOMPRESSLEVEL=1\\n' >conf.d/machine && "
                "printf '%s\\n' virtio_pci virtio_blk ext4 >modules && "
                "cd /usr/share/initramfs-tools/hooks && "
                "chmod -x fuse keymap ntfs_3g thermal thin-provisioning-tools")


def expect_to_go_on(machine):
    """Over a power cut, and then over a restart in order."""
    machine.tracked("begin")
    machine.take_initramfs()
    machine.tracked("write")
    machine.cut()
    machine.start()
    assert machine.root()[1] == {"era"}
    machine.run("systemctl", "start", "tolvubd-start.service", timeout=SLOW)
    machine.tracked("write")
    machine.reboot()
    assert machine.root()[1] == {"era"}
    assert machine.tracked("finish") == "tracked"
