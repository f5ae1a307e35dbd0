"""Machines whose root file system is tracked: the initramfs restores its layers before it is mounted."""
import json
import pathlib

from lab.virtual.driver import install
from lab.virtual.qemu import QemuMachine

TRACKED = pathlib.Path(__file__).with_name("tracked.py")
SIZE = 6 << 30
VOLUME = "3G"
SLOW = 1200


class RootedMachine(QemuMachine):
    """A machine whose root can be on another disk than the first, which is then mounted at /kept. It boots
    from the initramfs on its root, as with a boot loader."""

    def move_root(self, device, name):
        """Copies the root to `device`; the next start uses that copy, under the name `name`."""
        self.run(f"mkfs.ext4 -q -b 4096 {device} && mount {device} /mnt && cp -ax /. /mnt/ && "
                 "mkdir /mnt/kept && "
                 f"echo '{name} / ext4 errors=remount-ro 0 1\n/dev/vda /kept ext4 defaults 0 0' "
                 ">/mnt/etc/fstab && "
                 "umount /mnt", timeout=SLOW)
        self.append = f"root={name}"

    def take_initramfs(self):
        """Takes the initramfs for the next start, after all changes to it."""
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
    """A machine with the driver installed, and with a second disk."""
    machine = new_machine(RootedMachine, disks=(SIZE,))
    install(machine)
    make_initramfs_small(machine)
    return machine


def make_initramfs_small(machine):
    """Keeps the initramfs small: an emulated machine takes minutes to build one with parts that it doesn't
    need."""
    machine.run("cd /etc/initramfs-tools && printf 'MODULES=list\\nCOMPRESSLEVEL=1\\n' >conf.d/machine && "
                "printf '%s\\n' virtio_pci virtio_blk ext4 >modules && "
                "cd /usr/share/initramfs-tools/hooks && "
                "chmod -x fuse keymap ntfs_3g thermal thin-provisioning-tools")


def expect_to_go_on(machine):
    """Checks that tracking continues after a power cut, and then after a clean restart."""
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
