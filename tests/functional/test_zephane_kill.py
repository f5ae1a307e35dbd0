"""The server, or the engine of an image, is killed at each step of a backup over the second transport: what
ends well is right, what can't go on fails, and the next backup works."""
import pytest

from fault_site import log_file
from lab.zephane import ZephaneServer
from zephane_site import kill_engine, kill_server

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


@pytest.mark.parametrize("kill", [kill_server, kill_engine])
def test_kill_at_each_step(one_volume, punching, faults, kill):
    site = one_volume
    for text, number in site.boundaries(STEPS):
        with site.held("write", number, paths=[log_file()]) as (backup, hold):
            assert text not in backup.log
            kill(site)
            hold.release()
            backup.wait()
        faults.note(f"{kill.__name__} before {text!r}", site.judge(backup))
        assert backup.state == STEPS[text], (text, backup.log)
        site.assert_recovered()
