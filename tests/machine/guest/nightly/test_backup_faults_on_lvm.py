"""The agent's functional tests of backups under faults and kills, on logical volumes."""
import pytest

from lvm_site import check_functional

pytestmark = pytest.mark.usefixtures("agent_site")


@pytest.mark.parametrize("name", ("test_backup_faults.py", "test_backup_kill.py"))
def test_faults(name):
    check_functional(name)
