"""Backups over the second transport whose storage fails, is slow, or stops for a while: whatever is reported
finished is right, and the next backup works."""
import time

import pytest

from backup_site import EXT4
from fault_site import DATA, FIRST, LITTLE, fault_site
from lab.holds import Trace
from lab.zephane import ZephaneServer
from zephane_site import FAILING_CALLS, FragileServer

SERVER = FragileServer
VOLUMES = (EXT4,)
KINDS = ({"full": True}, {}, {"merge": True})
SECONDS_AWAY = 2


@pytest.fixture(autouse=True)
def holes(appliance):
    """Every kind of request is made."""
    assert appliance.set_config({"holepunch.enabled": True}).is_success


def run_broken(site, faults, fault, *calls, **kind):
    """The state of a backup whose storage begins to fail in the middle of the copy."""
    with site.in_copy(**kind) as (backup, hold):
        site.target.fail(*calls)
        hold.release()
        backup.wait()
    site.target.mend()
    faults.note(f"{fault}, {kind}", site.judge(backup))
    return backup


@pytest.mark.parametrize("kind", KINDS, ids=["full", "incremental", "merge"])
def test_storage_fails_in_the_copy(one_volume, faults, kind):
    for call in FAILING_CALLS:
        backup = run_broken(one_volume, faults, f"EIO of each {call}", call, **kind)
        assert backup.state == "failed", (call, backup.log)
        one_volume.check_clean()
    one_volume.assert_recovered()


def test_storage_fails_from_the_beginning(one_volume, faults):
    """An incremental that can't read the image's beginning fails before there is a snapshot."""
    site = one_volume
    site.target.fail("pread")
    backup = site.protection.run()
    site.target.mend()
    faults.note("EIO of each pread from the beginning", site.judge(backup))
    assert backup.state == "failed", backup.log
    assert "Failed to generate remote checksum" in backup.log
    assert "Start Snapshotting" not in backup.log
    site.assert_recovered()


def test_flush_fails(one_volume, faults):
    """What hasn't reached the disk hasn't been backed up, whatever was answered before."""
    site = one_volume
    for kind in KINDS:
        with site.in_copy(**kind) as (backup, hold):
            engine = site.protection.images["data"].engine()
            with Trace(engine, "fdatasync,fsync", "-e", "inject=fdatasync,fsync:error=EIO"):
                hold.release()
                backup.wait()
        faults.note(f"EIO of each flush, {kind}", site.judge(backup))
        assert backup.state == "failed", backup.log
        site.check_clean()
    site.assert_recovered()


def test_storage_fails_now_and_then(agent, appliance, faults):
    """Some backups get through and some don't."""
    with fault_site(appliance, agent, (DATA,), FragileServer, rate="3%") as site:
        for number in range(6):
            site.target.fail(*FAILING_CALLS)
            site.change()
            backup = site.protection.run(**KINDS[number % len(KINDS)])
            site.target.mend()
            faults.note(f"EIO of three calls in a hundred, {KINDS[number % len(KINDS)]}", site.judge(backup))
            site.check_clean()
        site.assert_recovered()


def test_slow_storage_costs_time_only(agent, appliance, faults):
    slow = ["--filter=delay", "rdelay=20ms", "wdelay=20ms"]
    with fault_site(appliance, agent, (DATA,), ZephaneServer, options=slow) as site:
        for kind in KINDS:
            backup = site.back_up(**kind)
            faults.note(f"20 ms more for each request, {kind}", backup.state)
            assert backup.bytes("data") > 0


@pytest.mark.parametrize("reads", [FIRST, LITTLE])
def test_server_is_away_for_a_moment(one_volume, faults, reads):
    """Its connections stay, and so nothing is lost but time."""
    site = one_volume
    for kind in KINDS:
        with site.in_copy(reads, **kind) as (backup, hold):
            site.target.pause()
            hold.release()
            time.sleep(SECONDS_AWAY) # this is how long it is away
            assert not backup.has_ended
            site.target.resume()
            backup.wait()
        faults.note(f"server paused for {SECONDS_AWAY} s, {kind}", site.judge(backup))
        assert backup.state == "finished", backup.log
        site.check_clean()
    site.assert_recovered()
