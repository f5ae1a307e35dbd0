"""Backups of the real daemon that are cancelled in each phase: by the appliance, by its silence, or by the
next backup."""
import pathlib
import re
import signal
import time

import pytest

from backup_site import write_script
from fault_site import DATA, LITTLE, MORE, SNAPSHOTS, fault_site
from lab.services import wait_until
from lab.syscalls import MOUNT_CALLS

MOST_WINDING_DOWN = 6
SECONDS = 60
SILENCE = 180 * 10**9 # nanoseconds
SHORT_SILENCE = 10**9
CLOSING = "Beginning execution of the Close Backup Session phase."
ENDING = "Beginning execution of the Transition To Incremental phase."
SCRIPT = """#!/bin/sh
[ "$1" = "$(cat /run/mode)" ] || exit 0
: > /run/in-script
while [ -e /run/in-script ]; do sleep 0.02; done
"""


@pytest.fixture
def two_volumes(agent, appliance):
    with fault_site(appliance, agent, (DATA, MORE)) as site:
        yield site


@pytest.fixture
def script():
    """The path of a script that makes a backup wait until /run/in-script is removed."""
    return write_script("wait", SCRIPT)


def check_cancelled(site, backup, faults, where):
    """Checks that the session wasn't ended as a success, that the snapshots have ended nevertheless, and that
    nothing is left."""
    backup.wait()
    state = site.judge(backup)
    faults.note(f"cancel {where}", state)
    assert state == "failed", backup.log
    assert CLOSING not in backup.log
    assert ENDING in backup.log
    assert "Backup run finished" in backup.log
    assert backup.status["connection_error"] is False
    site.check_clean()


@pytest.mark.parametrize("mode", ["PRE", "POST"])
def test_cancel_while_a_script_runs(one_volume, script, faults, mode):
    """The current phase is completed, and the next one isn't started."""
    site = one_volume
    pathlib.Path("/run/mode").write_text(mode, encoding="ascii")
    flag = pathlib.Path("/run/in-script")
    site.change()
    backup = site.protection.start(volumes=site.protection.request(scripts=[(script.name, SECONDS)]))
    wait_until(flag.exists, SECONDS, "script")
    backup.cancel()
    assert backup.state == "active"
    flag.unlink()
    check_cancelled(site, backup, faults, f"in the {mode} script")
    assert "Finished execution of the Start Snapshotting phase." in backup.log
    assert "Copy Volume" not in backup.log
    site.assert_recovered()


def test_cancel_while_the_target_is_silent(one_volume, faults):
    """The backup ends as soon as the target answers."""
    site = one_volume
    site.target.pause()
    backup = site.protection.start()
    backup.wait_for_log("Beginning execution of the Validate Remote Targets phase.")
    backup.cancel()
    site.target.resume()
    check_cancelled(site, backup, faults, "while remote targets are validated")
    assert "Start Snapshotting" not in backup.log
    site.assert_recovered()


def test_cancel_while_snapshots_are_taken(one_volume, faults):
    """All snapshots are still taken, and then given back. The second one exists and can be mounted."""
    site = one_volume
    with site.held(MOUNT_CALLS, 1) as (backup, hold):
        backup.cancel()
        hold.release()
        check_cancelled(site, backup, faults, "while a snapshot is mounted")
    assert "Copy Volume" not in backup.log
    site.assert_recovered()


def test_cancel_in_the_copy(one_volume, faults):
    """A backup of any kind ends at once, and the next one sends what it has left out."""
    site = one_volume
    for kind in ({"full": True}, {}, {"merge": True}):
        with site.in_copy(**kind) as (backup, hold):
            backup.cancel()
            with pytest.raises(AssertionError, match="is already canceled"):
                backup.cancel()
            hold.release()
            check_cancelled(site, backup, faults, f"in the copy, {kind}")
        assert "Finished execution of the Copy Chunk Ranges phase." not in backup.log
        site.assert_recovered()


def test_cancel_between_volumes(two_volumes, faults):
    """One volume has been copied, the other hasn't: neither is finished."""
    site = two_volumes
    lines = site.rehearse("openat,write")
    copied = next(at for at, line in enumerate(lines) if "Finished copying volume " in line)
    earlier = sum(line.startswith("openat(") and "/dev/tolvu" in line for line in lines[:copied])
    with site.held("openat", earlier + 1, paths=SNAPSHOTS) as (backup, hold):
        backup.cancel()
        hold.release()
        check_cancelled(site, backup, faults, "between volumes")
    assert backup.log.count("Finished copying volume ") == 1
    site.assert_recovered()


def test_cancel_too_late(one_volume, faults):
    """A backup that can't be cancelled any more finishes, and its image is right."""
    site = one_volume
    with site.held("umount2", 1) as (backup, hold):
        backup.cancel()
        hold.release()
        backup.wait()
    state = site.judge(backup)
    faults.note("cancel while snapshots are ended", state)
    assert state == "finished", backup.log
    site.assert_recovered()


def shorten_silence(daemon):
    """Patches the memory of a daemon: the three minutes for which a backup waits for its appliance become a
    second. Nothing else in its memory has this value."""
    patience = SILENCE.to_bytes(8, "little")
    found = 0
    with open(f"/proc/{daemon.pid}/mem", "r+b", buffering=0) as memory:
        for begin, end in writable_memory(daemon.pid):
            memory.seek(begin)
            content = memory.read(end - begin)
            for match in re.finditer(re.escape(patience), content):
                memory.seek(begin + match.start())
                memory.write(SHORT_SILENCE.to_bytes(8, "little"))
                found += 1
    return found


def writable_memory(pid):
    """(begin, end) of each private, writable mapping without a file, except the stacks."""
    lines = pathlib.Path("/proc", str(pid), "maps").read_text(encoding="ascii").splitlines()
    for line in lines:
        place, rights, _, _, inode, *name = line.split()
        if rights == "rw-p" and inode == "0" and name in ([], ["[heap]"]):
            yield tuple(int(address, 16) for address in place.split("-"))


def test_silent_appliance(one_volume, faults):
    """If an appliance has asked for the status and then stops asking, its backup is cancelled. If it has
    never asked, the backup goes on."""
    site = one_volume
    lost = "Backup cancelling due to lost ordak ping"
    number = site.steps_of_copy("read", SNAPSHOTS[0])[5]
    for is_asked in (False, True):
        with site.held("read", number, paths=SNAPSHOTS) as (backup, hold):
            assert shorten_silence(site.daemon) > 0
            if is_asked:
                assert backup.state == "active"
            time.sleep(2 * SHORT_SILENCE / 10**9) # the appliance's silence
            hold.release()
            site.daemon.wait_for(lambda: backup.has_ended, "the end of the backup")
        state = site.judge(backup)
        faults.note(f"silence of an appliance that {'has' if is_asked else 'has never'} asked", state)
        assert state == ("failed" if is_asked else "finished"), backup.log
        assert (lost in backup.log) is is_asked
        site.check_clean()
    site.assert_recovered()


def test_appliance_that_may_be_silent(one_volume, database):
    """If the watchdog is switched off in the database, a backup that starts afterwards has none."""
    site = one_volume
    database("insert into config (key, value) values ('disable_ordak_ping_timeout', '1')")
    with site.in_copy(LITTLE) as (backup, hold):
        shorten_silence(site.daemon)
        assert backup.state == "active"
        time.sleep(2 * SHORT_SILENCE / 10**9) # the appliance's silence
        hold.release()
        site.daemon.wait_for(lambda: backup.has_ended, "the end of the backup")
    assert backup.state == "finished", backup.log
    assert "lost ordak ping" not in backup.log


def test_second_backup_takes_over(one_volume, faults):
    """The first backup is cancelled, and the second waits until it has ended."""
    site = one_volume
    with site.in_copy(LITTLE, full=True) as (first, hold):
        second = site.protection.start()
        assert "Backup request: Cancelling already running backup first." in second.log
        assert (first.state, second.state) == ("active", "active")
        hold.release()
        site.daemon.wait_for(lambda: second.log.count("Backup run finished") == 2, "both backups")
    faults.note("second backup", site.judge(first))
    assert first.state == "failed"
    assert site.judge(second) == "finished", second.log
    assert second.log.count("Beginning running backup phases...") == 1
    site.assert_recovered()


def test_stop_while_a_backup_waits_for_another(one_volume, foreground, faults):
    """A stop cancels both: the running backup ends, and the waiting one never starts."""
    site = one_volume
    begin = "Beginning execution of the Populate Volumes phase."
    with site.in_copy(LITTLE, full=True) as (first, hold):
        begun = first.log.count(begin)
        site.protection.start()
        site.daemon.send(signal.SIGTERM)
        site.daemon.wait_for_log("BackupManager canceled all backups")
        hold.release()
        assert site.daemon.wait() == 0
    faults.note("SIGTERM while a backup waits for another", "stopped")
    assert first.log.count(begin) == begun
    assert first.log.count("FAILED!") == 2
    site.check_clean()
    site.daemon = foreground()
    site.assert_recovered()


def test_seven_backups_in_a_row(one_volume, faults):
    """Six earlier backups may still be ending when a new one is started; one more is refused. A waiting
    backup that is cancelled never starts: only the last one runs."""
    site = one_volume
    with site.in_copy(LITTLE) as (first, hold):
        others = [site.protection.start() for _ in range(MOST_WINDING_DOWN)]
        refused = site.protection.appliance.backup(site.protection.request())
        assert refused.status == 400
        assert "Too many backup requests while waiting for cancelling backup" in str(refused.content)
        hold.release()
        site.daemon.wait_for(lambda: first.log.count("Backup run finished") == 1 + MOST_WINDING_DOWN,
                             "all backups", 3 * SECONDS)
    faults.note("seven backups at once", site.judge(others[-1]))
    assert others[-1].state == "finished"
    assert {backup.state for backup in [first, *others[:-1]]} == {"failed"}
    assert first.log.count("FAILED!") == MOST_WINDING_DOWN
    assert first.log.count("Beginning execution of the Populate Volumes phase.") == 2
    site.assert_recovered()
