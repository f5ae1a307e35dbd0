"""More of the agent's own tests of backups, on logical volumes, whose snapshots are device-mapper's."""
import pytest

from lvm_site import check_functional, site_on

FILES = """test_backup.py test_backup_incremental.py test_backup_debt.py test_backup_merge.py
           test_backup_moment.py test_backup_owed.py test_backup_faults.py test_backup_kill.py""".split()


@pytest.fixture(scope="module", autouse=True)
def site(disks):
    with site_on(*disks[:2]):
        yield


@pytest.mark.parametrize("name", FILES)
def test_backups(name):
    check_functional(name)
