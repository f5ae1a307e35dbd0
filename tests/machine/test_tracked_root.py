"""A root file system that is tracked, on a logical volume and on a partition that was adopted: the
initramfs gives it its layers back before it is mounted."""
import json
import pathlib

import pytest

from lab.virtual.driver import install
from lab.virtual.qemu import QemuMachine

TRACKED = pathlib.Path(__file__).with_name("tracked.py")
SIZE = 6 << 30
VOLUME = "3G"
SLOW = 1200
pytestmark = pytest.mark.nightly


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


@pytest.fixture
def machine(new_machine):
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


def test_root_on_a_logical_volume_is_tracked_over_restarts(machine):
    disk, = machine.disks
    machine.run(f"vgcreate -q vg {disk.device} && lvcreate -q -y -n root -L {VOLUME} vg")
    machine.move_root("/dev/vg/root", "/dev/mapper/vg-root")
    machine.reboot()
    assert machine.root() == ("/dev/mapper/vg-root", {"linear"})
    expect_to_go_on(machine)


def test_root_on_a_partition_can_be_adopted_and_left_again(machine):
    disk, = machine.disks
    machine.run(f"echo ',{VOLUME}' | sfdisk -q --label gpt {disk.device} && udevadm settle")
    partition = f"{disk.device}1"
    uuid = machine.run("blkid", "-o", "value", "-s", "PARTUUID", partition).stdout.strip()
    assert machine.run("tolvuctl", "adopt", partition, check=False).returncode == 1 # not mounted
    machine.move_root(partition, f"PARTUUID={uuid}")
    machine.reboot()
    assert machine.root() == (partition, set())
    machine.run("tolvuctl", "adopt", partition)
    machine.take_initramfs()
    machine.reboot()
    assert machine.root()[1] == {"linear"}
    expect_to_go_on(machine)
    machine.run("tolvuctl destroy 2 && tolvuctl adopt --undo", timeout=SLOW)
    machine.take_initramfs()
    machine.reboot()
    assert machine.root() == (partition, set())
