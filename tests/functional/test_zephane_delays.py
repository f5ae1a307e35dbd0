"""Backups over the second transport whose storage is slow, fails now and then, or stops for a while: if a
backup is reported finished, its image is right; and the next backup works."""
import time

import pytest

from fault_site import DATA, LITTLE, fault_site
from lab.zephane import ZephaneServer
from zephane_site import FAILING_CALLS, KINDS, FailingServer

SERVER = ZephaneServer
pytestmark = pytest.mark.usefixtures("punching") # otherwise no request zeroes blocks
SECONDS_AWAY = 2


def test_storage_fails_now_and_then(agent, appliance, faults):
    """Some of the backups succeed and some fail."""
    with fault_site(appliance, agent, (DATA,), FailingServer, rate="1%") as site:
        for number in range(6):
            site.target.fail(*FAILING_CALLS)
            site.change()
            backup = site.protection.run(**KINDS[number % len(KINDS)])
            site.target.stop_failing()
            faults.note(f"EIO of one call in a hundred, {KINDS[number % len(KINDS)]}", site.judge(backup))
            site.check_clean()
        site.assert_recovered()


def test_slow_storage_costs_time_only(agent, appliance, faults):
    slow = ["--filter=delay", "rdelay=20ms", "wdelay=20ms"]
    with fault_site(appliance, agent, (DATA,), ZephaneServer, options=slow) as site:
        for kind in KINDS:
            backup = site.back_up(**kind)
            faults.note(f"20 ms more for each request, {kind}", backup.state)
            assert backup.bytes("data") > 0


def test_server_is_away_for_a_moment(one_volume, faults):
    """Its connections stay open, so the backup only takes longer."""
    site = one_volume
    for kind in KINDS:
        with site.in_copy(LITTLE, **kind) as (backup, hold):
            site.target.pause()
            hold.release()
            time.sleep(SECONDS_AWAY) # the time for which it is away
            assert not backup.has_ended
            site.target.resume()
            backup.wait()
        faults.note(f"server paused for {SECONDS_AWAY} s, {kind}", site.judge(backup))
        assert backup.state == "finished", backup.log
        site.check_clean()
    site.assert_recovered()
