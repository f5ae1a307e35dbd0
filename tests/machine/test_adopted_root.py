"""A root file system on an adopted partition is tracked across restarts."""
import pytest

import root_site

pytestmark = pytest.mark.nightly


def test_root_on_a_partition_can_be_adopted_and_left_again(new_machine):
    machine = root_site.make(new_machine)
    disk, = machine.disks
    machine.run(f"echo ',{root_site.VOLUME}' | sfdisk -q --label gpt {disk.device} && udevadm settle")
    partition = f"{disk.device}1"
    uuid = machine.run("blkid", "-o", "value", "-s", "PARTUUID", partition).stdout.strip()
    assert machine.run("tolvuctl", "adopt", partition, check=False).returncode == 1 # not mounted
    machine.move_root(partition, f"PARTUUID={uuid}")
    machine.reboot()
    assert machine.root() == (partition, set())
    machine.run("tolvuctl", "adopt", partition)
    machine.take_initramfs()
    machine.reboot()
    device, kinds = machine.root()
    assert kinds == {"linear"}
    named = machine.run("readlink -f /dev/disk/by-uuid/$(findmnt -no UUID /)").stdout.strip()
    assert named == machine.run("readlink", "-f", device).stdout.strip()
    root_site.expect_to_go_on(machine)
    machine.run("tolvuctl destroy 2 && tolvuctl adopt --undo", timeout=root_site.SLOW)
    machine.take_initramfs()
    machine.reboot()
    assert machine.root() == (partition, set())
