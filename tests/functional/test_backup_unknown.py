"""Backups of volumes whose used blocks can't be determined, as their kind is unknown: they fail, with a log
line that names the volume, and the whole request fails. The result for the other volumes depends on their
order."""
import dataclasses
import re

import pytest

from backup_site import EXT4, device_of, fill, root_of
from lab.volumes import Volume

SMALL = dataclasses.replace(EXT4, mebibytes=448) # with room for the files of a failed backup
VOLUMES = (
    SMALL,
    Volume("fat16", "vfat", mebibytes=300, mount_point="/mnt/fat16", making=("-F", "16", "-s", "16")),
    Volume("fat12", "vfat", mebibytes=126, mount_point="/mnt/fat12", making=("-F", "12", "-s", "64")),
    Volume("away", "vfat", mebibytes=20, making=("-F", "16")),
    Volume("empty", mebibytes=1),
)
DATA = SMALL.name
TURN = re.compile("Beginning execution of the Copy Volume (.*) phase")


@pytest.fixture
def protection(protect, volumes):
    for name in (DATA, "fat16"):
        fill(root_of(volumes[name]), name, files=10, largest=100_000)
    return protect(DATA, "fat16", "fat12", "away")


def run_in_turn(protection, *names):
    """Runs a backup of these volumes, which are processed in the reverse order of the request. Returns the
    backup, and the volumes that were started."""
    backup = protection.run(*reversed(names), full=True)
    begun = TURN.findall(backup.log)
    assert begun == [protection.partitions[name].uuid for name in names][:len(begun)]
    return backup, names[:len(begun)]


def check_not_recognised(backup, partition):
    reason = f"File system not recognized for {partition.uuid} [failure:file-system-unsupported]"
    assert f"Exception caught during backup run: {reason}\n" in backup.log
    assert "Finished execution of the Close Backup Session phase." not in backup.log


def check_next(protection, kind):
    backup = protection.run(DATA)
    assert backup.state == "finished", backup.log
    assert backup.type(DATA) == kind, backup.log
    protection.verify(DATA)


@pytest.mark.parametrize("name", ["fat16", "fat12"])
def test_volumes_after_it_are_not_begun(protection, volumes, name):
    before = protection.images[DATA].writes()
    backup, begun = run_in_turn(protection, name, DATA)
    assert begun == (name,)
    assert (f"[ERROR:]    {name.upper()} is not supported [failure:file-system-unsupported]\n"
            in backup.log)
    check_not_recognised(backup, volumes[name])
    assert protection.images[DATA].writes() == before
    check_next(protection, "full")


def test_volumes_before_it_are_copied_but_nobody_vouches_for_them(protection, volumes):
    backup, begun = run_in_turn(protection, DATA, "fat16")
    assert begun == (DATA, "fat16")
    assert f"Finished copying volume {volumes[DATA].uuid}" in backup.log
    check_not_recognised(backup, volumes["fat16"])
    check_next(protection, "differential")


def test_image_of_it_is_not_written(protection):
    run_in_turn(protection, "fat16")
    assert protection.images["fat16"].writes().commands == 0


def test_other_volume_is_tracked_on(protection, volumes):
    """The next backup of the volume sends what it owes to its image."""
    check_next(protection, "full")
    run_in_turn(protection, "fat16", DATA)
    assert device_of(volumes[DATA])["state"] == 2
    fill(root_of(volumes[DATA]), "after", files=5)
    check_next(protection, "incremental")


def test_unmounted_one_fails_for_that(protection, volumes):
    backup = protection.run(DATA, "away", full=True)
    assert f"Volume {volumes['away'].uuid} is NOT mounted" in backup.log
    assert not TURN.findall(backup.log)


def test_empty_partition_is_no_volume(protection, volumes, appliance):
    """The partition has no UUID of a volume, and its own UUID isn't accepted as one."""
    listed = appliance.host().content["volumes"]
    assert volumes["empty"].device not in {volume["device"] for volume in listed}
