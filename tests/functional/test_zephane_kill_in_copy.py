"""The server, or the engine of an image, is killed during the copy of a backup over the second transport, or
is away before it: the backup fails, and the next one works."""
import pytest

from lab.zephane import ZephaneServer
from zephane_site import KINDS, kill_engine, kill_server

SERVER = ZephaneServer


@pytest.mark.parametrize("kill", [kill_server, kill_engine])
def test_kill_in_the_copy(one_volume, faults, kill):
    """The connection isn't resumed: the backup fails, and the log says why."""
    site = one_volume
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


def test_server_stays_away(one_volume, faults):
    """The backup gives up after five tries, before there is a snapshot."""
    site = one_volume
    site.target.kill()
    backup = site.protection.run()
    faults.note("server away", site.judge(backup))
    assert backup.state == "failed", backup.log
    assert backup.log.count("Couldn't connect to zephane://") == 5
    assert "Start Snapshotting" not in backup.log
    site.target.start()
    site.assert_recovered()
