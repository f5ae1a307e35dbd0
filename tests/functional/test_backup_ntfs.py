"""Whole backups of NTFS, which is mounted with a FUSE driver: the snapshot driver stops that process while it
reads the volume, and the agent mounts the snapshot with another such process."""
import os
import random
import signal

import pytest

from backup_site import Ledger, fill, root_of, size_of_all
from change_records import copied_extents
from fault_site import RETRYING, fault_site
from lab.backups import COW_MIB, capture_of
from lab.services import wait_until
from lab.volumes import Volume
from served import Load, is_stopped, server_of

MIB = 1 << 20
METADATA = 2 * MIB
STEPS = 4
SECONDS = 60
NTFS = Volume("windows", "ntfs", mebibytes=480, mount_point="/mnt/Büro und Lager")
VOLUMES = (NTFS,)


@pytest.fixture
def protection(protect, volumes):
    """The volume with files, and an image of it."""
    for name, partition in volumes.items():
        fill(root_of(partition), name)
    return protect()


def test_own_files_are_copied_and_the_log_says_so(protection, volumes):
    """The driver's own files are copied, as their extents can't be determined. As with any file system, no
    other free block is sent."""
    backup = protection.run(full=True)
    assert backup.state == "finished", backup.log
    protection.verify()
    for number, (name, partition) in enumerate(volumes.items()):
        assert f"Mounted /dev/tolvu{number} ({partition.device}) onto " in backup.log
        used = copied_extents(capture_of(partition), "ntfs")
        assert backup.bytes(name) == size_of_all(used), backup.log
        assert f"{partition.uuid}/.tolvu\", blocks will not be excluded." in backup.log
    assert "error occurred" not in backup.log


def change(root, step):
    """Changes of all kinds."""
    source = random.Random(f"{root} {step}")
    fill(root, f"{step}", files=12, largest=200_000)
    files = sorted(path for path in root.rglob("file *") if path.is_file())
    source.choice(files).unlink(missing_ok=True)
    with open(files[0] if files[0].exists() else files[1], "ab") as file:
        file.write(source.randbytes(100_000))
    (root / f"zeros {step}").write_bytes(bytes(MIB))
    (root / f"zeros {step - 1}").unlink(missing_ok=True)


def test_chain_of_all_types(protection, volumes):
    """After each backup the image equals the volume, and only changes were sent."""
    with Ledger(protection) as ledger:
        for sent in ledger.run("full", full=True).values():
            sent.check()
        for step in range(STEPS):
            for partition in volumes.values():
                change(root_of(partition), step)
            for name, sent in ledger.run("incremental").items():
                assert sent.check().reported_bytes < (COW_MIB + 20) * MIB, name
        for sent in ledger.run("incremental").values():
            assert sent.check().reported_bytes < COW_MIB * MIB + METADATA # the driver's next file
        for partition in volumes.values():
            change(root_of(partition), STEPS)
        for name, sent in ledger.run("differential", merge=True).items():
            assert sent.reported_bytes == size_of_all(sent.extents)
            assert sent.writes.bytes < sent.reported_bytes / 2, name
        for sent in ledger.run("incremental").values():
            sent.check()


def test_merge_mends_an_image(protection, volumes):
    """The middle of a file is damaged in the image."""
    with Ledger(protection) as ledger:
        ledger.run("full", full=True)
        for name, partition in volumes.items():
            extents = copied_extents(capture_of(partition), "ntfs")
            begin, length = max(extents, key=lambda extent: extent[1])
            with open(protection.images[name].path, "r+b") as image:
                os.pwrite(image.fileno(), b"damage", begin + length // 2)
        for sent in ledger.run("differential", merge=True).values():
            assert 0 < sent.writes.bytes < sent.reported_bytes


def test_volumes_in_use(protection, volumes):
    """Each image is of one moment, whatever is written meanwhile."""
    with Load(root_of(volumes["windows"]) / "load") as load:
        for kind, expected in (({"full": True}, "full"), ({}, "incremental"),
                               ({"merge": True}, "differential"), ({}, "incremental")):
            load.wait_for_more()
            backup = protection.run(**kind)
            assert backup.state == "finished", backup.log
            assert backup.type("windows") == expected, backup.log
            protection.verify()


@pytest.fixture
def broken_site(agent, appliance):
    with fault_site(appliance, agent, (NTFS,)) as site:
        yield site


def test_kill_in_the_copy(broken_site, foreground, faults):
    with broken_site.in_copy() as (_, hold):
        kill(broken_site, hold)
    check_restart(broken_site, foreground, faults, "in the copy, incremental")


def kill(site, hold):
    site.daemon.send(signal.SIGKILL)
    hold.give_up()
    assert site.daemon.wait() == -signal.SIGKILL


def check_restart(site, foreground, faults, where):
    """Checks that at most one backup fails because of what the killed one has left."""
    state = site.restart_after_kill(foreground())
    faults.note(f"kill -9 {where}; the next backup", state)
    if state != "finished":
        site.assert_recovered()
    site.check_clean()


def test_kill_while_the_volume_is_held(broken_site, foreground, faults):
    """The guard process releases the volume, though the daemon that started it is dead."""
    server = server_of(broken_site.site["windows"].device)
    with broken_site.held("pidfd_send_signal", 1, behind=True) as (_, hold):
        wait_until(lambda: is_stopped(server), SECONDS, "the volume held")
        kill(broken_site, hold)
        wait_until(lambda: not is_stopped(server), 3, "the volume let go")
    check_restart(broken_site, foreground, faults, "while the volume is held")


def test_cancel_in_the_copy(broken_site, faults):
    with broken_site.in_copy(merge=True) as (backup, hold):
        backup.cancel()
        hold.release()
        backup.wait()
    faults.note("cancel in the copy, merge", broken_site.judge(backup))
    assert backup.state == "failed", backup.log
    broken_site.assert_recovered()


def test_target_is_lost(broken_site, faults):
    """The target is away first for less time than the retries last, and then for more."""
    site = broken_site
    for comes_back in (True, False):
        with site.in_copy(full=True) as (backup, hold):
            site.target.kill()
            hold.release()
            if comes_back:
                backup.wait_for_log(RETRYING)
                site.target.start()
            backup.wait()
        faults.note(f"target lost, comes back: {comes_back}", site.judge(backup))
        assert backup.state == ("finished" if comes_back else "failed"), backup.log
        if not comes_back:
            site.target.start()
        site.assert_recovered()
