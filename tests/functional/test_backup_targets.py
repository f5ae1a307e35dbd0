"""Targets of all kinds: several images, an image inside a disk, large sectors, passwords, wrong targets."""
import dataclasses

import pytest

from backup_site import EXT4, XFS, check, check_chain, check_refused, fill_some
from lab.istgt import Istgt
from lab.poison import is_poison

MIB = 1 << 20
USER, PASSWORD = "agent", "twelve or more"
SECOND = dataclasses.replace(EXT4, name="second", mebibytes=256, mount_point="/mnt/second")
THIRD = dataclasses.replace(EXT4, name="third", mebibytes=256, mount_point="/mnt/third")
VOLUMES = (EXT4, XFS, SECOND, dataclasses.replace(XFS, name="fourth", mount_point="/mnt/fourth"), THIRD)


def test_five_volumes_in_one_backup(protect, volumes):
    fill_some(volumes, volumes, "a")
    protection = protect()
    backup = protection.run(full=True)
    check(protection, backup, "full")
    uuids = [volumes[name].uuid for name in volumes]
    assert sorted(entry["volume"] for entry in backup.status["details"]) == sorted(uuids)
    copied = [line for line in backup.log.splitlines() if "Beginning execution of the Copy Volume" in line]
    assert len(copied) == 5
    last_snapshot = backup.log.index("Volumes successfully started snapshotting...")
    assert last_snapshot < backup.log.index(copied[0]) # all of the same moment
    fill_some(volumes, ("second", "fourth"), "b")
    check(protection, protection.run(), "incremental")


def test_some_of_the_volumes_in_turn(protect, volumes):
    """A volume that isn't part of a backup still owes its changes to the next one."""
    protection = protect("data", "files")
    check(protection, protection.run(full=True), "full")
    for seed, names in (("a", ["data"]), ("b", ["files"]), ("c", ["data"])):
        fill_some(volumes, ["data", "files"], seed)
        backup = protection.run(*names)
        assert backup.state == "finished", backup.log
        protection.verify(*names)
    backup = protection.run()
    check(protection, backup, "incremental")


def test_image_that_begins_inside_of_its_disk(protect, volumes):
    """Nothing before the image is changed. The checksum is that of the image's own beginning."""
    protection = protect("data", "files", offset=3 * MIB)
    check_chain(protection, volumes)
    for image in protection.images.values():
        with open(image.path, "rb") as file:
            assert is_poison(file.read(3 * MIB))


def test_target_with_large_sectors(protect, volumes):
    check_chain(protect("files", block_size=4096), volumes)


@pytest.mark.parametrize("target", [Istgt], indirect=True)
def test_target_of_another_make(protect, volumes):
    check_chain(protect("data", "files"), volumes)


def test_blocks_smaller_than_a_sector_of_the_target_are_refused(protect, volumes):
    """Such a block can't be written without knowing the rest of the sector."""
    fill_some(volumes, ["data"], "a")
    protection = protect("data", block_size=4096)
    backup = protection.run(full=True)
    assert backup.log.count("Failed to write the chunk!") == 2, backup.log
    assert backup.status["connection_error"]


def test_target_with_a_password(protect, volumes, target):
    target.require_chap(USER, PASSWORD)
    check_chain(protect("files"), volumes)


@pytest.fixture
def protection(protect, volumes):
    protection = protect("files")
    check(protection, protection.run(full=True), "full")
    fill_some(volumes, ["files"], "since")
    return protection


def test_wrong_password_and_none(protection, volumes, target):
    target.require_chap(USER, PASSWORD)
    for user, password in ((USER, "wrong password"), ("", "")):
        log = check_refused(protection, username=user, password=password)
        for attempt in range(1, 6):
            assert (f"Iscsi target connect or Login failed: Try: {attempt} Target name: {target.name} "
                    f"Target portal: {target.portal} LUN: {protection.images['files'].lun}. Error: ") in log
        assert "Iscsi target connect exceeded max retries. Aborting.\n" in log
        assert "[failure:target-login]\n" in log
        assert "wrong password" not in log
    right = protection.request(username=USER, password=PASSWORD)
    check(protection, protection.run(volumes=right), "incremental")


def test_unknown_target(protection, volumes):
    log = check_refused(protection, name="iqn.2026-01.example:nobody")
    assert ("Transport related error occurred during backup run: Failed to open transport connection while "
            "validating remote target [failure:target-unreachable]\n") in log
    assert "[failure:target-login]\n" in log
    check(protection, protection.run(), "incremental")


def test_disk_that_is_too_small(protection, volumes, target):
    """The backup fails without writing beyond the disk's end. The next one, to an image of full size, sends
    what is missing. It compares everything, as the agent can't tell one disk from another."""
    small = target.add_image("small", 64 * MIB)
    backup = protection.run(volumes=protection.request(lun=small.lun), full=True)
    assert backup.state == "failed", backup.log
    assert backup.status["connection_error"]
    assert small.path.stat().st_size == 64 * MIB
    assert backup.log.count("Failed to write the chunk!") + \
        backup.log.count("Failed to seek to the write offset!") >= 1, backup.log
    fill_some(volumes, ["files"], "after")
    check(protection, protection.run(), "differential")
