"""An engine that never answers can't block a backup for ever."""
import time

from fault_site import LITTLE
from lab.zephane import ZephaneServer

SERVER = ZephaneServer
GIVEN_UP_SECONDS = 60 # the client's timeout for each answer


def test_server_falls_silent_in_the_copy(one_volume, faults):
    site = one_volume
    with site.in_copy(LITTLE, full=True) as (backup, hold):
        site.target.pause()
        begin = time.monotonic()
        hold.release()
        backup.wait()
        seconds = time.monotonic() - begin
    site.target.resume()
    faults.note(f"server silent, given up after {seconds:.0f} s", site.judge(backup))
    assert backup.state == "failed", backup.log
    assert backup.status["connection_error"] is True
    assert GIVEN_UP_SECONDS - 1 < seconds < GIVEN_UP_SECONDS + 15
    site.assert_recovered()
