"""One Ceph cluster for all tests of a module."""
import pytest

from lab.ceph import CephCluster


@pytest.fixture(scope="module")
def cluster(private_machine):
    with CephCluster() as running:
        yield running
