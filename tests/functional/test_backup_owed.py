"""The changes that a failed backup owes stay owed, whatever kinds of backup fail after it."""
import pytest

from backup_site import EXT4, VANISHING, fill, root_of, write_script

VOLUMES = (EXT4,)
NAME = EXT4.name


def fail_after_the_snapshot(protection, **kind):
    write_script("vanishing", VANISHING)
    backup = protection.run(volumes=protection.request(scripts=["vanishing"]), **kind)
    assert backup.state == "failed", backup.log
    assert backup.status["snapshot_error"]


@pytest.mark.parametrize("kinds", [[{}], [{}, {}], [{}, {"merge": True}], [{}, {"full": True}, {}],
                                   [{"full": True}, {}, {"merge": True}, {"merge": True}]])
def test_failed_backups_owe_what_they_have_not_brought(protect, volumes, kinds):
    root = root_of(volumes[NAME])
    fill(root, "first")
    protection = protect()
    assert protection.run(full=True).state == "finished"
    for number, kind in enumerate(kinds):
        fill(root, f"since {number}", files=10)
        fail_after_the_snapshot(protection, **kind)
    fill(root, "last", files=10)
    backup = protection.run()
    assert (backup.state, backup.type(NAME)) == ("finished", "incremental"), backup.log
    protection.verify()
