"""The agent's functional tests of backups, on logical volumes, whose snapshots are device-mapper's."""
import pytest

from lvm_site import check_functional

pytestmark = pytest.mark.usefixtures("agent_site")


def test_backups_of_all_types():
    check_functional("test_backup.py", "-k", "iscsi")
