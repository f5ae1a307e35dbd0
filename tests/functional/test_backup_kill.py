"""The daemon is killed, or told to stop, at each boundary of a backup; the images of the next one are
right."""
import signal
import subprocess

import pytest

from fault_site import DATA, fault_site, log_file
from lab.volumes import Volume

# The thread is held before it logs the line: what comes before is done, what follows hasn't started.
BOUNDARIES = (
    "Beginning execution of the Start Snapshotting phase.",
    "Snapshot session successfully validated",
    "Mounted /dev/tolvu0 ",
    "Finished execution of the Start Snapshotting phase.",
    "Beginning execution of the Open Volume I/O phase.",
    "Beginning execution of the Copy Chunk Ranges phase.",
    "Finished execution of the Copy Chunk Ranges phase.",
    "Finished copying volume ",
    "Beginning execution of the Close Backup Session phase.",
    "Finished execution of the Close Backup Session phase.",
    "Closing backup session, finalizing remote targets...",
    "Beginning execution of the Transition To Incremental phase.",
    "Unmounted  ",
    "calling transition_incremental for device: ",
    "Finished execution of the Transition To Incremental phase.",
    "Backup run finished",
)
SECONDS = 60
KINDS = ({"full": True}, {}, {"merge": True})

# A killed backup may leave two CoW files, and the next one starts only if there is room for a third.
TIGHT = DATA
ROOMY = Volume("data", "ext4", mebibytes=480, mount_point="/mnt/data")
XFS = Volume("files", "xfs", mebibytes=480, mount_point="/mnt/files")


@pytest.fixture
def make_site(agent, appliance):
    return lambda volume: fault_site(appliance, agent, (volume,))


def kill(site, hold):
    site.daemon.send(signal.SIGKILL)
    hold.give_up()
    assert site.daemon.wait() == -signal.SIGKILL


def check_restart(site, foreground, faults, where):
    """Checks that at most one backup fails because of what the killed one has left."""
    state = site.restart_after_kill(foreground())
    faults.note(f"kill -9 {where}; the next backup", state)
    if state == "finished":
        site.check_clean()
    else:
        site.assert_recovered()


@pytest.mark.parametrize(("volume", "step"), [(XFS, 1), (TIGHT, 3)], ids=["xfs", "ext4"])
def test_kill_at_boundaries(make_site, foreground, faults, volume, step):
    with make_site(volume) as site:
        for text, number in site.boundaries(BOUNDARIES)[::step]:
            with site.held("write", number, paths=[log_file()]) as (backup, hold):
                assert text not in backup.log
                kill(site, hold)
            check_restart(site, foreground, faults, f"on {volume.file_system} before {text!r}")


def test_kill_in_the_copy(make_site, foreground, faults):
    with make_site(ROOMY) as site:
        for kind in KINDS:
            with site.in_copy(**kind) as (backup, hold):
                assert "Finished execution of the Copy Chunk Ranges phase." not in backup.log
                kill(site, hold)
            check_restart(site, foreground, faults, f"in the copy, {kind}")


def frozen_writer(mount_point):
    """A process that tries to write to a frozen file system."""
    for _ in range(SECONDS):
        writer = subprocess.Popen(["dd", "if=/dev/zero", f"of={mount_point}/probe", "bs=1", "count=1",
                                   "status=none"])
        try:
            writer.wait(1)
        except subprocess.TimeoutExpired:
            return writer
    raise AssertionError("never frozen")


def test_kill_while_frozen(make_site, foreground, faults):
    """The guard process thaws the file system, though the daemon that started it is dead."""
    with make_site(XFS) as site:
        mount_point = site.site.mount_point("files")
        with site.held("ioctl", 1, paths=[mount_point], behind=True) as (_, hold):
            writer = frozen_writer(mount_point)
            kill(site, hold)
            assert writer.wait(1) == 0
            check_restart(site, foreground, faults, "while the file system is frozen")


def test_stop_at_boundaries(make_site, foreground, faults):
    """The daemon stops in order, after the backup has ended."""
    with make_site(ROOMY) as site:
        for text, number in site.boundaries(BOUNDARIES)[::4]:
            with site.held("write", number, paths=[log_file()]) as (backup, hold):
                site.daemon.send(signal.SIGTERM)
                site.daemon.wait_for_output("Stopping services")
                hold.release()
                assert site.daemon.wait() == 0
            assert "Beginning execution of the Transition To Incremental phase." in backup.log
            faults.note(f"SIGTERM before {text!r}", "stopped")
            site.check_clean()
            site.daemon = foreground()
            site.assert_recovered()
