"""The server, or the engine of an image, is killed at each step of a backup over the second transport: if the
backup finishes, its image is right; if it can't continue, it fails; and the next one works."""
import pytest

from fault_site import log_file
from lab.zephane import ZephaneServer
from zephane_site import kill_engine, kill_server

SERVER = ZephaneServer
# The thread is held before it logs the line. The backup isn't affected if no connection is open at that
# moment, or if everything has been sent.
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
