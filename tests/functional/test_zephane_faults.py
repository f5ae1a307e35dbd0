"""Backups over the second transport whose storage fails: none is reported finished, and the next one
works."""
import pytest

from lab.syscalls import Trace
from zephane_site import FAILING_CALLS, KINDS, FailingServer

SERVER = FailingServer
pytestmark = pytest.mark.usefixtures("punching") # otherwise no request zeroes blocks


def run_broken(site, faults, fault, *calls, **kind):
    """The state of a backup whose storage starts to fail in the middle of the copy."""
    with site.in_copy(**kind) as (backup, hold):
        site.target.fail(*calls)
        hold.release()
        backup.wait()
    site.target.stop_failing()
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
    """If an incremental backup can't read the beginning of the image, it fails before there is a snapshot."""
    site = one_volume
    site.target.fail("pread")
    backup = site.protection.run()
    site.target.stop_failing()
    faults.note("EIO of each pread from the beginning", site.judge(backup))
    assert backup.state == "failed", backup.log
    assert "Failed to generate remote checksum" in backup.log
    assert "Start Snapshotting" not in backup.log
    site.assert_recovered()


def test_flush_fails(one_volume, faults):
    """Data that hasn't reached the disk isn't backed up, whatever the engine answered before."""
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
