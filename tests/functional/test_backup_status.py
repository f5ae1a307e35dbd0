"""The status that the appliance sees during a backup, and afterwards."""
import pytest

from backup_site import XFS, root_of, size_of_all
from change_records import copied_extents
from lab.backups import capture_of

VOLUMES = (XFS,)
MIB = 1 << 20


@pytest.fixture
def protection(protect, volumes):
    with open(root_of(volumes["files"]) / "large", "wb") as file:
        for number in range(60):
            file.write(bytes([number, 7]) * (MIB // 2))
    return protect()


def lists(appliance):
    return appliance.backups().content


def test_running_backup_tells_how_far_it_is(protection, appliance, target):
    """The target is suspended for a while, so that the backup can be seen half way."""
    backup = protection.start(full=True)
    assert lists(appliance) == {"active": [backup.id], "failed": [], "finished": []}
    seen = []

    def progress(status):
        transfer = status["details"][0]["transfer"]
        seen.append((status["status"], transfer["bytesTransferred"], transfer["totalSize"]))
        if transfer["bytesTransferred"] and not paused:
            target.pause()
            paused.append(lists(appliance))
            target.resume()

    paused = []
    backup.wait(progress=progress)
    assert backup.state == "finished", backup.log
    assert paused == [{"active": [backup.id], "failed": [], "finished": []}]
    assert lists(appliance) == {"active": [], "failed": [], "finished": [backup.id]}
    sent = [transferred for _, transferred, _ in seen]
    assert sent == sorted(sent) and len(set(sent)) > 2
    partition = protection.partitions["files"]
    exact = size_of_all(copied_extents(capture_of(partition), partition.volume.file_system))
    assert sent[-1] == exact
    totals = {total for state, transferred, total in seen if transferred}
    assert len(totals) == 1
    assert all(state == "active" for state, transferred, _ in seen if 0 < transferred < exact)
    # The driver's and the agent's own files, and other excluded files, don't count in the total.
    assert exact <= totals.pop() < exact + 32 * MIB
    status = backup.status
    assert (status["connection_error"], status["snapshot_error"]) == (False, False)
    assert status["details"] == [{"volume": partition.uuid, "status": "finished", "type": "full",
                                  "transfer": {"bytesTransferred": exact, "totalSize": seen[-1][2]}}]
    assert 0 <= status["elapsedTime"] < 300
    protection.verify()


def test_backups_are_listed_by_what_has_become_of_them(protection, appliance):
    finished = protection.run(full=True)
    failed = protection.run(volumes=protection.request(lun=9))
    again = protection.run()
    assert [finished.state, failed.state, again.state] == ["finished", "failed", "finished"]
    assert {state: sorted(ids) for state, ids in lists(appliance).items()} == {
        "active": [], "failed": [failed.id], "finished": sorted([finished.id, again.id])}
