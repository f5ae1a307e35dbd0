"""The properties that tests on machines of QEMU rely on: Debian's own kernel, booted with an initramfs."""
import pathlib

import pytest

from lab.virtual.qemu import QemuMachine

ROOT = pathlib.Path(__file__).resolve().parents[2]
pytestmark = pytest.mark.nightly


@pytest.fixture(scope="module")
def machine(new_machine):
    return new_machine(QemuMachine, disks=(1 << 30,))


def test_the_kernel_is_debians_own(machine):
    assert machine.run("uname", "-r").stdout.strip().endswith("-amd64")
    machine.run("modprobe", "-a", "dm-era", "dm-snapshot", "dm-log-writes", "hfsplus", "vfat")


def test_the_root_was_found_by_an_initramfs(machine):
    assert "initramfs" in machine.run("journalctl", "-b", "-k", "--no-pager").stdout
    assert machine.run("findmnt", "-no", "SOURCE", "/").stdout == "/dev/vda\n"


def test_the_checkout_is_there_and_can_not_be_written(machine):
    assert machine.run("cat", __file__).stdout == pathlib.Path(__file__).read_text(encoding="utf-8")
    machine.run("mount", "-o", "remount,rw", ROOT, check=False)
    assert machine.run(f"echo > {ROOT}/written", check=False).returncode != 0
    assert not (ROOT / "written").exists()


def test_programs_of_the_build_find_their_libraries(machine):
    assert "not found" not in machine.run("ldd", ROOT / "build" / "release" / "bekd").stdout


def test_a_cut_loses_what_was_not_synced_and_keeps_what_was(machine):
    device = machine.disks[0].device
    machine.run(f"mkfs.ext4 -q {device} && mount {device} /mnt && echo kept > /mnt/kept && sync")
    machine.run("echo lost > /mnt/lost")
    before = machine.boot_id()
    machine.cut()
    machine.start()
    machine.run("mount", device, "/mnt")
    assert machine.run("ls /mnt").stdout.split() == ["kept", "lost+found"]
    assert machine.boot_id() not in ("", before)


def test_a_reboot_is_another_boot(machine):
    before = machine.boot_id()
    machine.reboot()
    assert machine.boot_id() not in ("", before)
