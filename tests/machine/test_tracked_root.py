"""A root file system on a logical volume is tracked across restarts."""
import pytest

import root_site

pytestmark = pytest.mark.nightly


def test_root_on_a_logical_volume_is_tracked_over_restarts(new_machine):
    machine = root_site.make(new_machine)
    disk, = machine.disks
    machine.run(f"vgcreate -q vg {disk.device} && lvcreate -q -y -n root -L {root_site.VOLUME} vg")
    machine.move_root("/dev/vg/root", "/dev/mapper/vg-root")
    machine.reboot()
    assert machine.root() == ("/dev/mapper/vg-root", {"linear"})
    root_site.expect_to_go_on(machine)
