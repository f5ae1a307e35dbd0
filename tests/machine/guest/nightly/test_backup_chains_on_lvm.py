"""The agent's functional tests of all types of backups, and of chains of them, on logical volumes."""
import pytest

from lvm_site import check_functional

pytestmark = pytest.mark.usefixtures("agent_site")


@pytest.mark.parametrize("name", ("test_backup.py", "test_backup_incremental.py", "test_backup_merge.py"))
def test_chains(name):
    check_functional(name)
