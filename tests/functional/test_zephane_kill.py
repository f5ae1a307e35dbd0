"""The server, or the engine of an image, is killed at each step of a backup over the second transport: what
ends well is right, what can't go on fails, and the next backup works."""
import os
import signal

import pytest

from fault_site import log_file
from lab.zephane import ZephaneServer
from zephane_site import KINDS

SERVER = ZephaneServer
# The thread is held before it has logged the line. Where nothing is open at the moment, or nothing is owed
# any more, the backup doesn't mind.
STEPS = {
    "Beginning execution of the Validate Remote Targets phase.": "finished",
    "Found cached volume checksum ": "failed",
    "Beginning execution of the Open Volume I/O phase.": "finished",
    "Backup session created a volume writer ": "failed",
    "Finished execution of the Copy Chunk Ranges phase.": "failed",
    "Finished execution of the Punch Holes phase.": "failed",
    "Backup session registering volume UUID ": "finished",
    "Closing backup session, finalizing remote targets...": "finished",
}


def kill_server(site):
    site.target.restart()


def kill_engine(site):
    engine = site.protection.images["data"].engine()
    if engine is not None: # there is none while nobody is connected
        os.kill(engine, signal.SIGKILL)


VICTIMS = pytest.mark.parametrize("kill", [kill_server, kill_engine])


@pytest.fixture
def site(one_volume, appliance):
    assert appliance.set_config({"holepunch.enabled": True}).is_success
    return one_volume


@VICTIMS
def test_kill_at_each_step(site, faults, kill):
    for text, number in site.boundaries(STEPS):
        with site.held("write", number, paths=[log_file()]) as (backup, hold):
            assert text not in backup.log
            kill(site)
            hold.release()
            backup.wait()
        faults.note(f"{kill.__name__} before {text!r}", site.judge(backup))
        assert backup.state == STEPS[text], (text, backup.log)
        site.assert_recovered()


@VICTIMS
def test_kill_in_the_copy(site, faults, kill):
    """Nothing is taken up again: the backup fails, and says why."""
    for kind in KINDS:
        with site.in_copy(**kind) as (backup, hold):
            kill(site)
            hold.release()
            backup.wait()
        faults.note(f"{kill.__name__} in the copy, {kind}", site.judge(backup))
        assert backup.state == "failed", backup.log
        assert backup.status["connection_error"] is True
        assert "Couldn't write " in backup.log
        site.assert_recovered()


def test_server_stays_away(site, faults):
    """The backup gives up after five tries, before there is a snapshot."""
    site.target.kill()
    backup = site.protection.run()
    faults.note("server away", site.judge(backup))
    assert backup.state == "failed", backup.log
    assert backup.log.count("Couldn't connect to zephane://") == 5
    assert "Start Snapshotting" not in backup.log
    site.target.start()
    site.assert_recovered()
