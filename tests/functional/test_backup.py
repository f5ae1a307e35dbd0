"""A whole backup by the real daemon to a real target: the image holds what the volume held."""
from backup_site import OVER_BOTH, fill, root_of, size_of_all
from change_records import copied_extents
from lab.backups import capture_of


def check_nothing_is_sent_in_vain(backup, volumes):
    """Checks that no free block is sent. A frozen volume has a correct map, even if its journal held changes
    just before."""
    for name, partition in volumes.items():
        used = copied_extents(capture_of(partition), partition.volume.file_system)
        assert backup.bytes(name) == size_of_all(used), backup.log
    assert "error occurred" not in backup.log


@OVER_BOTH
def test_full_then_incremental(protect, volumes):
    for name, partition in volumes.items():
        fill(root_of(partition), name)
    protection = protect()
    backup = protection.run(full=True)
    assert backup.state == "finished", backup.log
    protection.verify()
    check_nothing_is_sent_in_vain(backup, volumes)
    backup = protection.run()
    assert backup.state == "finished", backup.log
    assert {backup.type(name) for name in volumes} == {"incremental"}, backup.log
    protection.verify()
