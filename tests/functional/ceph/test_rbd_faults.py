"""Backups to a Ceph cluster whose machines fail in the middle of a copy: if a backup is reported finished,
the image is right; no backup waits for ever, and the next one works."""
import time

import pytest

from fault_site import DATA, fault_site
from lab.rbd import RbdServer
from lab.services import wait_until
from zephane_site import KINDS

SECONDS_AWAY = 5
LONGEST_WAIT = 150 # for a backup whose storage doesn't answer any more


@pytest.fixture
def fragile(cluster, agent, appliance, punching):
    """A site with one volume that has been backed up to the cluster. Requests of every kind are made."""
    with fault_site(appliance, agent, (DATA,), RbdServer, cluster=cluster) as made:
        yield made


def test_one_machine_dies(fragile, cluster, faults):
    """The backup doesn't notice, and the machine catches up when it is back."""
    for kind in KINDS:
        with fragile.in_copy(**kind) as (backup, hold), cluster.without(0):
            hold.release()
            backup.wait()
            faults.note(f"an OSD killed, {kind}", fragile.judge(backup))
            assert backup.state == "finished", backup.log
        with cluster.without(1):
            fragile.protection.verify()
    fragile.assert_recovered()


def test_copy_waits_for_a_machine(fragile, cluster, faults):
    for kind in KINDS:
        with fragile.in_copy(**kind) as (backup, hold), cluster.without(0):
            with cluster.without(1):
                hold.release()
                with pytest.raises(TimeoutError):
                    wait_until(lambda: backup.has_ended, SECONDS_AWAY, "the end of the backup")
            backup.wait()
            faults.note(f"two OSDs killed, one brought back, {kind}", fragile.judge(backup))
            assert backup.state == "finished", backup.log
    fragile.assert_recovered()


def test_machines_that_stay_away(fragile, cluster, faults):
    with fragile.in_copy(full=True) as (backup, hold), cluster.without(0, 1):
        begin = time.monotonic()
        hold.release()
        backup.wait(LONGEST_WAIT)
        faults.note(f"two OSDs killed, failed after {time.monotonic() - begin:.0f} s", fragile.judge(backup))
        assert backup.state == "failed", backup.log
    fragile.assert_recovered()


def test_engine_dies(fragile, faults):
    """Ceph allows a new engine to write when the lock of the dead one has expired."""
    export = fragile.target.exports["data"]
    for kind in KINDS:
        with fragile.in_copy(**kind) as (backup, hold):
            export.kill()
            hold.release()
            backup.wait()
            faults.note(f"the image's NBD server killed, {kind}", fragile.judge(backup))
            assert backup.state == "failed", backup.log
        export.start()
        fragile.assert_recovered()
