"""Whole backups by the real daemon to a real target: what is in the image is what the volume was."""
import pytest

from backup_site import EXT4, XFS, fill
from lab.backups import Protection
from lab.site import Site
from lab.targets import Target


@pytest.fixture
def protection(agent, appliance):
    with Site((EXT4, XFS)) as site, Target() as target:
        for partition in site.disk:
            fill(partition.volume.mount_point, partition.name)
        yield Protection(appliance, agent, target, site.disk)


def test_full_then_incremental(protection):
    backup = protection.run(full=True)
    assert backup.state == "finished", backup.log
    protection.verify()
    backup = protection.run()
    assert backup.state == "finished", backup.log
    assert {backup.type(name) for name in ("data", "files")} == {"incremental"}, backup.log
    protection.verify()
