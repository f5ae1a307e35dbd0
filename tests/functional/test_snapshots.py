"""Snapshots of real file systems, taken and ended as in a backup, with the driver's stand-in."""
import errno
import itertools
import os
import pathlib
import re
import subprocess

import pytest

from change_records import UNIT, differing_units, marked_since
from lab import driver
from lab.daemon import BASE, program
from lab.driver import STORE
from lab.images import tree_hashes
from lab.snapshots import MOUNT_ROOT, SessionError
from snapshot_site import (COW_MIB, EXT4, SnapshotSite, copy_snapshot, fill_tree, read_device, read_record,
                           recover)

MIB = 1 << 20
BOTH = ("data", "files")


@pytest.fixture
def lab_site(site):
    with SnapshotSite() as made:
        for name in made.names:
            fill_tree(made.mount_point(name), seed=1)
        yield made


@pytest.fixture
def small_site(site):
    """A site with only one volume, for operations that are done many times."""
    with SnapshotSite((EXT4,)) as made:
        fill_tree(made.mount_point("data"), seed=1)
        yield made


def fail_session(site, incremental=True, trace=()):
    """Runs a session whose start must fail, and ends it as a backup does. Returns the error text and the
    log."""
    with site.session(incremental=incremental) as session:
        if trace:
            session.trace(*trace)
        with pytest.raises(SessionError) as caught:
            session.start()
        try:
            session.end("failure")
        except SessionError as error: # a volume without a device has no record to report
            assert str(error).startswith("Unable to determine incremental bitmap file name.")
        return str(caught.value), session.log


def begin_tracking(site, directory):
    """Starts tracking; returns copies of the volumes' current content."""
    with site.session(incremental=False) as session:
        facts = session.start()
        captures = {name: copy_snapshot(facts[name]["snapshotPath"], directory / name) for name in BOTH}
        session.end("success")
    return captures


def test_snapshot_stands_still(lab_site):
    """While the volumes change, their mounted snapshots still show the old content."""
    before = {name: tree_hashes(lab_site.mount_point(name)) for name in BOTH}
    with lab_site.session(incremental=False) as session:
        facts = session.start()
        for name in BOTH:
            snapshot = MOUNT_ROOT / lab_site[name].uuid
            fill_tree(lab_site.mount_point(name), seed=2)
            os.sync()
            assert tree_hashes(snapshot) == before[name] != tree_hashes(lab_site.mount_point(name))
            with pytest.raises(OSError, match="Read-only"):
                (snapshot / "new").touch()
            assert facts[name]["excludedFiles"] == [str(snapshot / file)
                                                    for file in (".tolvu", ".tolvu1", ".tolvu.inc",
                                                                 ".tolvu.era")]
            assert facts[name]["incrementalPreserved"] is False
            size = lab_site[name].volume.mebibytes * MIB
            assert facts[name]["volumeSize"] == size == len(read_device(facts[name]["snapshotPath"]))
        assert lab_site.states() == [3, 3]
        assert session.check() == dict.fromkeys(BOTH, 0)
        assert MOUNT_ROOT.stat().st_mode & 0o777 == 0o700
        ended = session.end("success")
    for name in BOTH:
        assert ended[name]["incrementalPreserved"] is True
        assert ended[name]["fileName"] == str(lab_site.mount_point(name) / ".tolvu")
        assert lab_site.own_files(name) == [".tolvu", ".tolvu.inc"]
        lab_site.check_writable(name)
    lab_site.check_clean()


def test_check_finds_a_snapshot_that_is_gone(lab_site):
    """The snapshots are ended without the agent's knowledge, as an administrator may do."""
    with lab_site.session(incremental=False) as session:
        session.start()
        lab_site.forget_snapshots()
        assert session.check() == dict.fromkeys(BOTH, errno.ENOENT)
        with pytest.raises(SessionError):
            session.end("failure")
    lab_site.check_clean()


def test_record_marks_exactly_what_has_changed(lab_site, tmp_path):
    """The CoW file that an incremental backup closes marks exactly the units in which the two captures
    differ, and those that have come into use."""
    captures = begin_tracking(lab_site, tmp_path)
    for name in BOTH:
        fill_tree(lab_site.mount_point(name), seed=3)
    with lab_site.session() as session:
        facts = session.start()
        for name in BOTH:
            assert facts[name]["incrementalPreserved"] is True
            assert facts[name]["fileName"] == str(lab_site.mount_point(name) / ".tolvu")
            assert facts[name]["bitmapOffset"] == UNIT
            after = copy_snapshot(facts[name]["snapshotPath"], tmp_path / f"{name} after")
            marked, count = read_record(facts[name]["fileName"], after.stat().st_size // UNIT)
            assert marked == marked_since(captures[name], after, lab_site[name].volume.file_system)
            assert count == len(marked) > len(set(differing_units(captures[name], after))) > 100
            assert facts[name]["unchangedBlocks"] == facts[name]["bitmapEntries"] - count
        ended = session.end("success")
    for name in BOTH:
        assert lab_site.own_files(name) == [".tolvu.inc", ".tolvu1"]
        assert ended[name]["fileName"].endswith("/.tolvu1")
    lab_site.check_clean()


def test_failed_backup_is_made_good_by_the_next(small_site, tmp_path):
    """The next session reports again what a failed session hasn't delivered; after that one has succeeded, no
    later one does."""
    captures, marked, counts = [], [], []
    for outcome in ("success", "failure", "failure", "success", "success"):
        with small_site.session(incremental=bool(captures)) as session:
            facts = session.start()["data"]
            captures.append(copy_snapshot(facts["snapshotPath"], tmp_path / f"capture {len(captures)}"))
            marks, count = read_record(facts["fileName"], captures[0].stat().st_size // UNIT)
            marked.append(marks)
            counts.append(count)
            assert facts["incrementalPreserved"] is (len(captures) > 1)
            session.end(outcome)
        fill_tree(small_site.mount_point("data"), seed=10 + len(captures))
    steps = [marked_since(one, other, "ext4", closed)
             for one, other, closed in zip(captures, captures[1:], itertools.cycle((".tolvu", ".tolvu1")))]
    assert marked[1] == steps[0]
    assert marked[2] == steps[0] | steps[1]
    assert marked[3] == steps[0] | steps[1] | steps[2]
    assert marked[4] == steps[3]
    assert counts[1:] == [len(step) for step in steps] # the merge adds to the table, not to the header
    small_site.check_clean()


def test_failed_first_backup_leaves_no_device(small_site):
    """A volume that wasn't tracked before a failed backup isn't tracked after it."""
    with small_site.session(incremental=False) as session:
        session.start()
        with pytest.raises(SessionError, match="No device available"):
            session.end("failure")
        log = session.log
    assert driver.devices() == []
    assert (f"1 Failed to transition volume {small_site['data'].uuid} ({small_site.mount_point('data')}) "
            "to incremental. This volume may diff-merge next backup. [fallback:tracking-not-begun]\n") in log
    small_site.check_clean()
    small_site.run_session(incremental=False)
    assert small_site.states() == [2]


def test_tracking_outlives_a_restart(lab_site, tmp_path):
    """After a restart of the machine the reload scripts restore tracking, and the next session reports what
    has changed meanwhile."""
    captures = begin_tracking(lab_site, tmp_path)
    scripts = sorted(BASE.glob("reload_*"))
    assert [path.name for path in scripts] == ["reload_0", "reload_1"]
    assert {path.stat().st_mode & 0o7777 for path in scripts} == {0o700}
    with lab_site.restarted_machine():
        for script in scripts:
            subprocess.run([script], check=True)
    assert {device["block_device"] for device in driver.devices()} == {
        f"/dev/disk/by-uuid/{lab_site[name].uuid}" for name in BOTH}
    for name in BOTH:
        fill_tree(lab_site.mount_point(name), seed=4)
    with lab_site.session() as session:
        facts = session.start()
        for name in BOTH:
            assert facts[name]["incrementalPreserved"] is True
            after = copy_snapshot(facts[name]["snapshotPath"], tmp_path / f"{name} after")
            marked, _ = read_record(facts[name]["fileName"], after.stat().st_size // UNIT)
            assert marked == marked_since(captures[name], after, lab_site[name].volume.file_system)
        session.end("success")
    lab_site.check_clean()


def test_restart_without_reload(small_site):
    """A device that wasn't given back is set up anew, and the backup isn't incremental."""
    small_site.run_session(incremental=False)
    driver.restart()
    started, ended = small_site.run_session()
    assert started["data"]["incrementalPreserved"] is False
    assert ended["data"]["incrementalPreserved"] is True
    small_site.check_clean()


def test_no_uuid_twin(lab_site):
    """A snapshot has its volume's UUID, but neither udev nor udisks mistakes it for the volume."""
    with lab_site.session(incremental=False) as session:
        session.start()
        subprocess.run(["udevadm", "trigger", "--settle", "--subsystem-match=block"], check=True)
        listing = subprocess.run([program("Volumes")], input="\n", capture_output=True, text=True, check=True)
        for name in BOTH:
            link = pathlib.Path("/dev/disk/by-uuid", lab_site[name].uuid)
            assert str(link.resolve()) == lab_site[name].device
            assert listing.stdout.count(f'"uuid":"{lab_site[name].uuid}"') == 1
        session.end("success")


def test_full_volume(lab_site):
    """If a volume has no room for its CoW file, the session fails before any snapshot is taken, of other
    volumes too."""
    mount_point = lab_site.mount_point("files")
    with open(mount_point / "ballast", "wb") as file:
        os.posix_fallocate(file.fileno(), 0, free_bytes(mount_point) - COW_MIB * MIB)
    text, log = fail_session(lab_site, incremental=False)
    assert text == "Cannot backup a full volume"
    uuid = lab_site["files"].uuid
    assert re.search(rf"^1 The required free space for volume {uuid} is \d+ bytes \(100\.6\d* MiB\), "
                     rf"but only \d+ bytes \(\S+ MiB\) is available \[failure:volume-full\]\n"
                     rf"1 Volume {uuid} \({mount_point}\) "
                     r"is full, not enough free space to perform a backup \[failure:volume-full\]$", log,
                     re.MULTILINE)
    assert driver.devices() == []
    assert lab_site.own_files("data") == []


def free_bytes(path):
    """The free bytes, including the space of deleted files: XFS frees that some time later, or when it is
    frozen."""
    for change in ("--freeze", "--unfreeze"):
        subprocess.run(["fsfreeze", change, path], check=True)
    status = os.statvfs(path)
    return status.f_bfree * status.f_bsize


def test_volume_without_mount_point(site):
    """The volume counts as full."""
    with SnapshotSite((EXT4,)) as lab_site:
        subprocess.run(["umount", lab_site.mount_point("data")], check=True)
        text, log = fail_session(lab_site)
        assert text == "Cannot backup a full volume"
        assert f"1 Volume {lab_site['data'].uuid} is full, not enough free space" in log
        subprocess.run(["mount", lab_site["data"].device, lab_site.mount_point("data")], check=True)


def test_read_only_volume(small_site):
    """No CoW file can be made on it. When it is writable again, snapshots work."""
    mount_point = small_site.mount_point("data")
    subprocess.run(["mount", "-o", "remount,ro", mount_point], check=True)
    text, log = fail_session(small_site, incremental=False)
    assert text == "Failed to start snapshot!"
    assert "1 error from calling setup_snapshot for device: " in log
    assert "errno: 30" in log # EROFS
    subprocess.run(["mount", "-o", "remount,rw", mount_point], check=True)
    small_site.run_session(incremental=False)
    small_site.check_clean()


def test_no_room_for_the_capture(small_site):
    """The driver reports it; the volume isn't changed."""
    subprocess.run(["mount", "-o", "remount,size=1m", STORE], check=True)
    text, log = fail_session(small_site, incremental=False)
    subprocess.run(["mount", "-o", "remount,size=1g", STORE], check=True)
    assert text == "Failed to start snapshot!"
    assert "errno: 28" in log # ENOSPC
    small_site.check_writable("data")
    assert small_site.own_files("data") == []
    small_site.check_clean()


def test_no_room_for_the_cow_file(small_site):
    """The free room was sufficient when it was checked, but is gone when the driver needs it."""
    text, log = fail_session(small_site, incremental=False,
                             trace=("-e", "trace=fallocate", "-e", "inject=fallocate:error=ENOSPC"))
    assert text == "Failed to start snapshot!"
    assert "errno: 28" in log
    small_site.check_writable("data")
    assert small_site.own_files("data") == []
    small_site.check_clean()


def test_no_room_for_the_history(small_site):
    """The session ends nevertheless, and the volume is tracked. A later session that has to merge a truncated
    history fails once, and what was recorded until then isn't used."""
    mount_point = small_site.mount_point("data")
    with small_site.session(incremental=False) as session:
        session.start()
        subprocess.run(["dd", "if=/dev/zero", f"of={mount_point}/ballast", "bs=4k", "status=none"],
                       check=False, stderr=subprocess.DEVNULL)
        assert session.end("success")["data"]["incrementalPreserved"] is True
        assert (f"1 Unable to write to incremental history file {mount_point}/.tolvu.inc: "
                "No space left on device\n") in session.log
    (mount_point / "ballast").unlink()
    small_site.check_clean()
    text, log = fail_session(small_site)
    assert text == "Failed to roll forward!"
    assert "1 Unable to read from incremental history file " in log
    for is_preserved in (False, True):
        started, _ = small_site.run_session()
        assert started["data"]["incrementalPreserved"] is is_preserved
    small_site.check_clean()


def test_record_without_history(small_site):
    """Without the history, owed changes might be missed, so an incremental session fails; a session of
    another type repairs it."""
    small_site.run_session(incremental=False)
    (small_site.mount_point("data") / ".tolvu.inc").unlink()
    text, _ = fail_session(small_site)
    assert text == "Cannot create snapshot files"
    assert small_site.states() == [2]
    small_site.run_session(incremental=False)
    small_site.run_session()
    small_site.check_clean()


def test_place_of_the_mounts_is_somebody_elses(small_site):
    """A symbolic link at that path, made by a user, is moved away, and no mount follows it."""
    target = pathlib.Path("/mnt/target")
    target.mkdir()
    MOUNT_ROOT.symlink_to(target)
    small_site.run_session(incremental=False)
    assert list(target.iterdir()) == []
    assert not MOUNT_ROOT.is_symlink()
    [moved] = pathlib.Path("/tmp").glob("tolvuMountRoot.*")
    moved.unlink()
    small_site.check_clean()


def test_snapshot_in_use_costs_one_session(small_site):
    """A process that uses a mounted snapshot keeps it busy; after it has ended, the next session recovers."""
    with small_site.session(incremental=False) as session:
        session.start()
        with open(MOUNT_ROOT / small_site["data"].uuid / ".tolvu", "rb"):
            ended = session.end("success")
            assert ended["data"]["incrementalPreserved"] is False
        assert "2 Failed to unmount " in session.log
    assert small_site.states() == [3]
    recover(small_site, incremental=True)
    small_site.check_clean()
    small_site.check_writable("data")
