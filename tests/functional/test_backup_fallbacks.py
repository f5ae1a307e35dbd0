"""How an incremental backup falls back if something that it builds on is wrong: the image must always be
trustworthy, and the log must say why."""
import contextlib
import dataclasses
import os
import signal
import sqlite3

import pytest

from backup_site import EXT4, device_of, fill, root_of
from lab.daemon import DATABASE
from lab.driver import forget_devices
from tolvubd_site import must

# With room for the CoW files that a killed backup leaves.
VOLUMES = (dataclasses.replace(EXT4, mebibytes=448),)
NAME = EXT4.name


@pytest.fixture
def volume(volumes):
    fill(root_of(volumes[NAME]), NAME)
    return volumes[NAME]


@pytest.fixture
def protection(protect, volume):
    """A volume with an image of a FULL backup, and changes since."""
    protection = protect()
    backup = protection.run(full=True)
    assert backup.state == "finished", backup.log
    fill(root_of(volume), "since")
    return protection


def display_name(volume):
    return f"{volume.uuid} ({volume.volume.mount_point})"


def check(protection, backup, kind, *lines):
    """Checks that the backup has become one of this kind, that its image is right, and that the log has these
    lines."""
    assert backup.state == "finished", backup.log
    assert backup.type(NAME) == kind, backup.log
    for line in lines:
        assert f"{line}\n" in backup.log
    protection.verify()


def check_incremental_works(protection):
    check(protection, protection.run(), "incremental")


@pytest.mark.parametrize("kind", [{}, {"merge": True}, {"full": True}])
def test_unknown_volume_is_copied_whole(protect, volume, kind):
    protection = protect()
    check(protection, protection.run(**kind), "full",
          f"[INFO:]     No db entry found for volume {display_name(volume)}, forcing FULL "
          "[fallback:volume-unknown]")
    check_incremental_works(protection)


@contextlib.contextmanager
def locked_database():
    """Locks the database, so that nobody else can read it."""
    with contextlib.closing(sqlite3.connect(DATABASE, isolation_level=None)) as connection:
        connection.execute("BEGIN EXCLUSIVE")
        yield
        connection.execute("ROLLBACK")


def test_unreadable_database_leads_to_a_merge(protection, volume, volume_site):
    """The database is locked while the volume is looked up. To have time for that, udisks makes the agent
    wait."""
    os.kill(volume_site.udisks.pid, signal.SIGSTOP)
    try:
        backup = protection.start()
        backup.wait_for_log("Beginning execution of the Populate Volumes phase.")
        with locked_database():
            os.kill(volume_site.udisks.pid, signal.SIGCONT)
            backup.wait_for_log("Finished execution of the Validate Local Targets phase.")
    finally:
        os.kill(volume_site.udisks.pid, signal.SIGCONT)
    check(protection, backup.wait(), "differential",
          f"[INFO:]     Could not find cached checksum from database for volume {volume.uuid} falling back "
          "to DIFFERENTIAL MERGE [fallback:database-unreadable]")
    check_incremental_works(protection)


def test_database_without_its_table_fails_the_backup_at_its_end(protection, volume, database):
    """The image's checksum can't be stored. Nothing is lost: the next backup sends everything."""
    database("ALTER TABLE volumes RENAME TO elsewhere")
    backup = protection.run()
    assert backup.state == "failed", backup.log
    assert f"The type of backup for volume {display_name(volume)} is: DIFFERENTIAL MERGE\n" in backup.log
    assert "Exception caught during backup run: " in backup.log
    database("ALTER TABLE elsewhere RENAME TO volumes")
    fill(root_of(volume), "after")
    backup = protection.run()
    assert backup.state == "finished", backup.log
    protection.verify()


def failing_back(volume, reason):
    return (f"[INFO:]     Could not find cached checksum from database for volume {volume.uuid} failing back "
            f"to DIFFERENTIAL_MERGE: {reason} [fallback:database-unreadable]")


def test_image_without_a_checksum_is_merged(protection, volume, database):
    database("DELETE FROM volumes")
    database("INSERT INTO volumes (volume_uuid) VALUES (?)", volume.uuid)
    check(protection, protection.run(), "differential",
          failing_back(volume, "Invalid checksum type found in volumes table"))
    database("UPDATE volumes SET image_checksum = 'none'")
    check(protection, protection.run(), "differential", failing_back(
        volume, f"Invalid checksum found in volumes table for volume UUID: {volume.uuid}, expected a decimal "
        "number below 4294967296"))
    database("UPDATE volumes SET image_checksum = '0'")
    check(protection, protection.run(), "differential",
          f"[INFO:]     Cached checksum for volume {volume.uuid} is zero indicating volume requires a "
          "DIFFERENTIAL_MERGE [fallback:image-unfinished]")
    check_incremental_works(protection)


@pytest.mark.parametrize("offset", [0, (10 << 20) - 1])
def test_damaged_image_is_merged(protection, volume, database, offset):
    with open(protection.images[NAME].path, "r+b") as image:
        byte = os.pread(image.fileno(), 1, offset)[0]
        os.pwrite(image.fileno(), bytes([byte ^ 1]), offset)
    (cached,), = database("SELECT image_checksum FROM volumes")
    backup = protection.run()
    check(protection, backup, "differential")
    assert f"The cached volume checksum '{int(cached):x}' didn't match with the remote volume checksum '" \
        in backup.log
    assert (f"' for volume: {volume.uuid}, failing back to DIFFERENTIAL_MERGE [fallback:image-differs]\n"
            in backup.log)
    check_incremental_works(protection)


def test_unreadable_image_fails_the_backup(protection, volume):
    """The backup fails instead of becoming a merge: if a target can't be read, writes to it can't be trusted.
    The driver continues tracking."""
    image = protection.images[NAME].path
    size = image.stat().st_size
    os.truncate(image, 0)
    backup = protection.run()
    assert backup.state == "failed", backup.log
    assert (backup.status["connection_error"], backup.status["snapshot_error"]) == (True, False)
    assert ("Transport related error occurred during backup run: Failed to generate remote checksum "
            "[failure:image-unreadable]\n" in backup.log)
    assert "Start Snapshotting" not in backup.log
    assert device_of(volume)["state"] == 2
    os.truncate(image, size)
    check(protection, protection.run(), "differential")
    check_incremental_works(protection)


def downgraded(volume):
    return ("[ERROR:]    Failed to snapshot while preserving incremental tracking information for volume "
            f"{volume.uuid} [fallback:everything-compared]",
            f"[INFO:]     Downgrading backup type to DIFFERENTIAL_MERGE for volume {volume.uuid}")


def test_untracked_volume_is_merged(protection, volume):
    forget_devices()
    check(protection, protection.run(), "differential",
          f"[INFO:]     Found no incremental mode snapshot for volume {volume.uuid}, falling back to diff "
          "merge. [fallback:not-tracked]", *downgraded(volume))
    check_incremental_works(protection)


def test_volume_left_in_snapshot_is_merged(protection, volume):
    """A killed run leaves a volume in a snapshot, so it isn't known what has changed since."""
    must("transition_snapshot", device_of(volume)["minor"], root_of(volume) / ".tolvu1", 100)
    check(protection, protection.run(), "differential",
          f"[WARNING:]  Device {volume.uuid} not in active incremental state, destroying snapshot "
          "[fallback:tracking-lost]", *downgraded(volume))
    check_incremental_works(protection)
