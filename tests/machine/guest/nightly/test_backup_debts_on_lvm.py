"""The agent's functional tests of what a backup owes, and of the moment of a snapshot, on logical volumes."""
import pytest

from lvm_site import check_functional

pytestmark = pytest.mark.usefixtures("agent_site")


def test_debts():
    check_functional("test_backup_debt.py", "-k", "not random_sequences") # of a model, which has no volumes


@pytest.mark.parametrize("name", ("test_backup_owed.py", "test_backup_moment.py"))
def test_what_is_owed(name):
    check_functional(name)
