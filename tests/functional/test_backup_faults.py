"""Backups of the real daemon to a real target, under faults of the target and of the source: if a backup is
reported finished, its image is right; and the next backup works."""
import contextlib
import os
import subprocess

import pytest

from fault_site import DATA, FIRST, RETRYING, SNAPSHOTS, fault_site, seeded
from lab.backups import capture_of
from lab.commands import run
from lab.logical_disk import GROUP, are_volumes_logical
from lab.syscalls import Trace
from lab.targets import Target
from lab.zephane import ZephaneServer

WINDOW = 0.8 # of the copy: the number of a thread's calls varies a little between runs
POINTS = 3


def points_of_copy(site, count, source):
    """Points during the copy of a full backup: before a read, before a packet, or after one."""
    reads = [{"call": "read", "number": number, "paths": [SNAPSHOTS[0]]}
             for number in site.steps_of_copy("read", SNAPSHOTS[0], full=True)]
    packets = [{"call": "writev", "number": number, "behind": behind}
               for number in site.packets_of_copy("writev", full=True) for behind in (False, True)]
    return [source.choice(steps[:int(len(steps) * WINDOW)]) for steps in (reads, packets, packets)[:count]]


def test_target_restarts_within_the_retries(one_volume, faults):
    """The target is away for up to five seconds, at any point of the copy: the backup succeeds."""
    site, source = one_volume, seeded()
    for point in points_of_copy(site, POINTS, source):
        tries = source.randrange(1, 4)
        fault = f"target away for {tries} s at {point}"
        print(fault)
        with site.held(**point, full=True) as (backup, hold):
            site.target.kill()
            hold.release()
            site.daemon.wait_for(lambda: backup.log.count(RETRYING) >= tries, "retries")
            site.target.start()
            backup.wait()
        faults.note(fault, site.judge(backup))
        assert backup.state == "finished", backup.log
        assert backup.status["connection_error"] is False
        site.check_clean()
    site.assert_recovered()


def test_target_stays_away(one_volume, faults):
    """The target is away for longer than the retries: the backup fails and says why, and the next one
    works."""
    site, source = one_volume, seeded()
    for point in points_of_copy(site, 2, source):
        fault = f"target gone at {point}"
        print(fault)
        with site.held(**point, full=True) as (backup, hold):
            site.target.kill()
            hold.release()
            backup.wait()
        faults.note(fault, site.judge(backup))
        assert backup.state == "failed", backup.log
        assert backup.status["connection_error"] is True
        assert backup.log.count(RETRYING) == 5
        site.target.start()
        site.assert_recovered()


@pytest.mark.parametrize("server", [Target, ZephaneServer])
def test_disk_of_the_target_is_full(agent, appliance, tmpfs, faults, server):
    """The target answers with an error each time, and the backup reports it. When there is room again, the
    next backup works."""
    directory = "/mnt-target"
    tmpfs(directory, "size=2g")
    with fault_site(appliance, agent, (DATA,), server, directory=directory) as site:
        image = site.protection.images["data"]
        # Punched blocks need room as soon as they are written; the next backup has to send all of them.
        subprocess.run(["fallocate", "--punch-hole", "--length", str(image.path.stat().st_size), image.path],
                       check=True)
        remount(directory, used_bytes(directory) + (8 << 20))
        site.change()
        backup = site.protection.run(full=True)
        faults.note(f"disk of the {server.__name__} full", site.judge(backup))
        assert backup.state == "failed", backup.log
        assert backup.status["connection_error"] is True
        assert "Failed to write the chunk! (" in backup.log
        assert backup.bytes("data") > 0
        remount(directory, 2 << 30)
        site.assert_recovered()


def remount(directory, size):
    subprocess.run(["mount", "-o", f"remount,size={size}", directory], check=True)


def used_bytes(directory):
    status = os.statvfs(directory)
    return (status.f_blocks - status.f_bfree) * status.f_frsize



def test_read_error_of_the_source(one_volume, faults):
    """If a block can't be read, the backup fails. If the map of used blocks can't be read, all blocks are
    copied instead. In both cases, no wrong image is reported finished."""
    site, source = one_volume, seeded()
    steps = site.steps_of_copy("read", SNAPSHOTS[0])
    states = []
    for number in [steps[0], *source.sample(steps[1:-1], 4), steps[-1]]:
        fault = f"error of read {number}"
        print(fault)
        site.change()
        with Trace(site.daemon.pid, "read", "-e", f"inject=read:error=EIO:when={number}", paths=SNAPSHOTS):
            backup = site.protection.run()
        states.append(site.judge(backup))
        faults.note(fault, states[-1])
        if states[-1] == "failed":
            assert "Failed to read the chunk at offset " in backup.log
            assert backup.status["connection_error"] is False
        site.check_clean()
    assert "failed" in states
    site.assert_recovered()


@contextlib.contextmanager
def snapshot_cut_short(partition):
    """Truncates what the driver keeps for the snapshot: the kernel then refuses to read most of it."""
    capture = capture_of(partition)
    content = capture.read_bytes()
    os.truncate(capture, 1 << 20)
    yield
    capture.write_bytes(content) # the test has damaged only the capture, not the volume


@contextlib.contextmanager
def snapshot_bypassed(partition):
    """Makes LVM remove the driver's layers from the volume; the driver may notice only after everything has
    been read."""
    run("lvchange", "--refresh", f"{GROUP}/{partition.name}")
    yield


def test_snapshot_ends_too_early(one_volume, faults):
    """If the snapshot is lost, the backup fails: the image can't have the lost data."""
    site = one_volume
    is_logical = are_volumes_logical()
    end = snapshot_bypassed if is_logical else snapshot_cut_short
    with site.in_copy(FIRST, full=True) as (backup, hold), end(site.protection.partitions["data"]):
        hold.release()
        backup.wait()
    faults.note("snapshot cut short", site.judge(backup))
    assert backup.state == "failed", backup.log
    assert (" has not lasted for its copy: " if is_logical else "Failed to read the chunk at ") in backup.log
    if is_logical:
        check_never_trusted_again(site)
    site.assert_recovered()


def check_never_trusted_again(site):
    """Checks that a failed device isn't used again: the next backup removes it, and fails for that, whether
    or not its status says so; the one after that compares everything."""
    backup = site.protection.run()
    assert backup.state != "finished", backup.log
    assert "destroying and returning failure, current state 3" in backup.log
    assert site.back_up().type("data") == "differential"
