"""Faults on a volume that has debts already: it is untracked, or left in a snapshot, or a failed backup owes
its changes. If a later backup reports "finished", it has sent everything."""
import pathlib
import signal
import subprocess

import pytest

from backup_site import VANISHING, write_script
from fault_site import DATA, MORE, fault_site
from lab import driver
from lab.daemon import BASE, program
from lab.driver import INFO
from lab.snapshots import MOUNT_ROOT

SECONDS = 120
SEQUENCES = 3000
PID_FILE = pathlib.Path("/run/daemon.pid")
SCRIPTS = {
    # Kills the daemon between the snapshots and the first write.
    "killer": f'#!/bin/sh\n[ "$1" = PRE ] || kill -9 "$(cat {PID_FILE})"\n',
    "vanishing": VANISHING,
    "filler": f"""#!/bin/sh
cd "{DATA.mount_point}" && [ "$1" = POST ] && rm .tolvu.inc && dd if=/dev/zero of=ballast bs=4k
""",
    "sealer": f'#!/bin/sh\n[ "$1" = PRE ] || chattr +i "{DATA.mount_point}/.tolvu.inc"\n',
    "blinder": f'#!/bin/sh\n[ "$1" = PRE ] || {{ rm {INFO}; mkdir {INFO}; }}\n',
}


@pytest.fixture
def make_site(agent, appliance):
    return lambda *volumes: fault_site(appliance, agent, volumes)


def start(site, *scripts, **kind):
    for name in scripts:
        write_script(name, SCRIPTS[name])
    site.change()
    return site.protection.start(volumes=site.protection.request(scripts=list(scripts)), **kind)


def kill_after_snapshots(site, foreground):
    """Kills the daemon after its snapshots; the next daemon finds the snapshots, still mounted."""
    PID_FILE.write_text(str(site.daemon.pid), encoding="ascii")
    backup = start(site, "killer")
    assert site.daemon.wait() == -signal.SIGKILL
    assert "Mounted /dev/tolvu0 " in backup.log
    assert "Copy Volume" not in backup.log
    site.daemon = foreground()


def fail_after_snapshots(site, *scripts, **kind):
    backup = start(site, *scripts, "vanishing", **kind).wait()
    assert backup.state != "finished", backup.log
    assert backup.status["snapshot_error"]
    return backup


def run_failing(site):
    """Runs a backup that fails because of what was left behind, whether or not its status says so."""
    site.change()
    backup = site.protection.start().wait()
    assert backup.state != "finished", backup.log
    return backup


def history():
    return pathlib.Path(DATA.mount_point, ".tolvu.inc")


@pytest.fixture
def leftover(one_volume, foreground):
    """A site with the snapshot left by a killed backup of an untracked volume."""
    driver.restart()
    kill_after_snapshots(one_volume, foreground)
    return one_volume


@pytest.fixture
def owing(one_volume):
    """A site whose last backup failed between its snapshots and its first write."""
    fail_after_snapshots(one_volume)
    return one_volume


@pytest.mark.parametrize("volumes", [(DATA,), (DATA, MORE)], ids=["one", "two"])
def test_leftover_snapshots_of_untracked_volumes(make_site, foreground, volumes):
    """No image has what these snapshots show, so the next changes must not be counted from them."""
    with make_site(*volumes) as site:
        driver.restart()
        kill_after_snapshots(site, foreground)
        backup = run_failing(site)
        assert "Could not destroy snapshot for " in backup.log
        assert "owes to its image is not known, destroying its snapshot" in backup.log
        site.assert_recovered()


def test_leftover_snapshot_that_somebody_looks_into(leftover):
    site = leftover
    with open(MOUNT_ROOT / site.site["data"].uuid / ".tolvu", "rb"):
        run_failing(site)
        assert site.site.states() == [3]
    run_failing(site)
    site.assert_recovered()


def test_leftover_snapshot_met_by_a_backup_without_target(leftover):
    site = leftover
    site.target.kill()
    backup = run_failing(site)
    assert "Start Snapshotting" not in backup.log
    site.target.start()
    site.assert_recovered()


def test_leftover_snapshot_met_by_a_cancelled_backup(leftover):
    site = leftover
    site.target.pause()
    backup = start(site)
    backup.wait_for_log("Beginning execution of the Validate Remote Targets phase.")
    backup.cancel()
    site.target.resume()
    assert backup.wait().state != "finished"
    assert "Start Snapshotting" not in backup.log
    site.assert_recovered()


def test_leftover_snapshot_of_a_volume_that_owes(owing, foreground):
    site = owing
    kill_after_snapshots(site, foreground)
    run_failing(site)
    site.assert_recovered()


def test_history_that_breaks_off(owing):
    site = owing
    with open(history(), "r+b") as file:
        file.truncate(history().stat().st_size // 2)
    assert "Failed to roll forward!" in run_failing(site).log
    site.assert_recovered()


@pytest.mark.parametrize("kind", [{"merge": True}, {"full": True}], ids=["merge", "full"])
def test_history_that_is_gone_when_another_type_fails(owing, kind):
    site = owing
    history().unlink()
    fail_after_snapshots(site, **kind)
    site.assert_recovered()


def test_history_without_room(owing):
    site = owing
    backup = fail_after_snapshots(site, "filler")
    assert "Unable to write to incremental history file " in backup.log
    pathlib.Path(DATA.mount_point, "ballast").unlink()
    site.assert_recovered()


@pytest.mark.parametrize("kind", [{}, {"merge": True}], ids=["incremental", "merge"])
def test_history_that_cannot_be_written(owing, kind):
    site = owing
    backup = fail_after_snapshots(site, "sealer", **kind)
    assert "Cannot make history, cannot open incremental history file: " in backup.log
    subprocess.run(["chattr", "-i", history()], check=True)
    site.assert_recovered()


def test_driver_that_tells_nothing_at_the_end(owing):
    site = owing
    backup = fail_after_snapshots(site, "blinder")
    assert "Unable to read tolvubd info" in backup.log
    INFO.rmdir()
    driver.refresh_status()
    assert site.site.states() == [3]
    run_failing(site)
    site.assert_recovered()


def test_image_of_a_full_backup_that_was_called_off_is_compared(one_volume):
    """The beginning of the image may be right although the rest isn't."""
    site = one_volume
    with site.in_copy(full=True) as (backup, hold):
        backup.cancel()
        hold.release()
        assert backup.wait().state == "failed"
    backup = site.back_up()
    assert backup.type("data") == "differential"
    assert " is zero indicating volume requires a DIFFERENTIAL_MERGE" in backup.log


def test_reload_scripts_survive_a_power_cut_and_do_not_come_back(one_volume, tmp_path):
    """Scripts are synced to the disk, when written and when removed, before the driver's state changes."""
    site = one_volume
    calls = tmp_path / "calls"
    with site.site.session() as session:
        session.trace("-y", "-e", "trace=fsync,unlink,chmod,rename", output=calls)
        session.start()
        session.end("success")
    lines = [line for line in calls.read_text(encoding="utf-8").splitlines() if str(BASE) in line]
    names = [line.split(maxsplit=1)[1].split(" = ")[0].rstrip() for line in lines]
    directory = next(name for name in names if name.startswith("fsync(") and name.endswith(f"<{BASE}>)"))
    script = f"{BASE}/reload_0"
    removed = names.index(f'unlink("{script}")')
    written = names.index(f'chmod("{script}", 0700)')
    assert names[removed + 1] == directory
    assert names[written + 1].endswith(f"<{script}>)")
    assert names[written + 2] == directory


def test_random_sequences_of_faults():
    """Runs the agent's session with a simulated driver and simulated volumes: see tests/model. To run other
    sequences: RandomSequences SEQUENCES SEED."""
    done = subprocess.run([program("RandomSequences"), str(SEQUENCES), "1"], capture_output=True, text=True,
                          check=False, timeout=10 * SECONDS)
    print(done.stdout, done.stderr)
    assert done.returncode == 0, done.stdout + done.stderr
    assert f"{SEQUENCES} sequences of seed 1: 0 wrong" in done.stdout
