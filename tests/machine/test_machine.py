"""The properties that tests on machines of user-mode Linux rely on."""
import pathlib

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
TARGETS = "crypt era flakey linear log-writes mirror snapshot snapshot-origin thin thin-pool".split()
MODULES = "dm-crypt dm-era dm-flakey dm-log-writes dm-mirror dm-snapshot dm-thin-pool".split()


@pytest.fixture
def volume(running_machine):
    """A new ext4 on the first disk, mounted at /mnt."""
    device = running_machine.disks[0].device
    running_machine.run(f"umount -q /mnt; mkfs.ext4 -q -F {device} 64M && mount {device} /mnt")
    return device


def test_exit_status_and_both_outputs_arrive(running_machine):
    done = running_machine.run("echo out; echo err >&2; exit 7", check=False)
    assert (done.returncode, done.stdout, done.stderr) == (7, "out\n", "err\n")


def test_input_and_files_go_in_and_out(running_machine, tmp_path):
    assert running_machine.run("rev", input="abc\n").stdout == "cba\n"
    path = tmp_path / "bytes"
    path.write_bytes(bytes(range(256)))
    running_machine.put(path, "/root/a file")
    assert running_machine.get("/root/a file") == bytes(range(256))


def test_words_are_given_to_a_command_as_they_are(running_machine):
    assert running_machine.run("printf", "%s|", "a b", "$HOME", "'").stdout == "a b|$HOME|'|"


def test_the_checkout_is_there_and_can_not_be_written(running_machine):
    assert running_machine.run("cat", __file__).stdout == pathlib.Path(__file__).read_text(encoding="utf-8")
    running_machine.run("mount", "-o", "remount,rw", ROOT, check=False)
    assert running_machine.run(f"echo > {ROOT}/written", check=False).returncode != 0
    assert not (ROOT / "written").exists()


def test_device_mapper_has_what_snapshots_and_faults_need(running_machine):
    running_machine.run("modprobe", "-a", *MODULES)
    known = running_machine.run("dmsetup", "targets").stdout
    assert {line.split()[0] for line in known.splitlines()} >= set(TARGETS)


def test_logical_volumes_can_be_made(running_machine):
    device = running_machine.disks[1].device
    running_machine.run(f"vgcreate -q vg {device} && lvcreate -q -n lv -L 512M vg && mkfs.xfs -q /dev/vg/lv")
    assert "linear" in running_machine.run("dmsetup", "table", "vg-lv").stdout
    running_machine.run("vgremove", "-q", "--yes", "vg")


def test_a_cut_loses_what_was_not_synced_and_keeps_what_was(running_machine, volume):
    running_machine.run("echo kept > /mnt/kept && sync && echo lost > /mnt/lost")
    running_machine.cut()
    assert not running_machine.is_on()
    running_machine.start()
    running_machine.run("mount", volume, "/mnt")
    assert running_machine.run("cat", "/mnt/kept").stdout == "kept\n"
    assert running_machine.run("cat", "/mnt/lost", check=False).returncode != 0


@pytest.mark.nightly
def test_a_cut_in_the_midst_of_writes_leaves_a_root_that_starts(running_machine):
    line = "while :; do dd if=/dev/urandom of=/root/noise bs=64k count=64 conv=fsync; done"
    with running_machine.begin(line) as writer:
        running_machine.run("sleep 1; test -s /root/noise")
        running_machine.cut()
        assert writer.wait(10) != 0
    running_machine.start()
    assert "ro," not in running_machine.run("findmnt", "-no", "OPTIONS", "/").stdout


def test_a_reboot_is_another_boot_and_keeps_what_is_on_disks(running_machine, volume):
    before = running_machine.boot_id()
    running_machine.run("echo kept > /mnt/kept")
    running_machine.reboot()
    assert running_machine.boot_id() not in ("", before)
    running_machine.run("mount", volume, "/mnt")
    assert running_machine.run("cat", "/mnt/kept").stdout == "kept\n"


@pytest.mark.nightly
def test_a_second_machine_is_another_one(running_machine, new_machine):
    second = new_machine(disks=())
    for machine, text in ((running_machine, "first"), (second, "second")):
        machine.run(f"echo {text} > /root/name && sync")
    assert running_machine.boot_id() != second.boot_id()
    assert [machine.run("cat", "/root/name").stdout for machine in (running_machine, second)] == \
        ["first\n", "second\n"]
    second.cut()
    assert running_machine.run("true").returncode == 0
