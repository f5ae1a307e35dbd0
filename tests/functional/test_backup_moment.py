"""The moment of the snapshot: the scripts around it, the room that it needs, and what can prevent it."""
import dataclasses
import os

import pytest

from backup_site import EXT4, XFS, device_of, fill, root_of, write_script
from lab.backups import capture_of
from lab.commands import run
from lab.daemon import SCRIPTS
from lab.images import mounted

MIB = 1 << 20
VOLUMES = (EXT4, XFS, dataclasses.replace(EXT4, name="unmounted", mebibytes=16, mount_point=""))


@pytest.fixture
def protection(protect, volumes):
    for name in ("data", "files"):
        fill(root_of(volumes[name]), name)
    return protect()


def check(protection, backup, kind, *names):
    assert backup.state == "finished", backup.log
    assert {backup.type(name) for name in names or protection.partitions} == {kind}, backup.log
    protection.verify(*names)


def test_size_of_the_cow_file_is_the_configured_one(protection, volumes):
    """The size applies from the next backup on, on the volume and in its snapshot; a size that is too small
    is raised."""
    kind = {"full": True}
    for size, expected in ((123, 123), (50, 100), (117, 117)):
        protection.set_cow_size(size, "data")
        backup = protection.run(**kind)
        check(protection, backup, "full" if kind else "incremental")
        kind = {}
        for name, mebibytes in (("data", expected), ("files", 100)):
            file = device_of(volumes[name])["cow_file"].lstrip("/")
            assert (root_of(volumes[name]) / file).stat().st_size == mebibytes * MIB
            with mounted(capture_of(volumes[name]), volumes[name].volume.file_system) as snapshot:
                assert (snapshot / file).stat().st_size == mebibytes * MIB
    assert ("Invalid cow file size (50) Clamping to (100)" in protection.daemon.log)


def test_full_volume_fails_the_backup_and_is_tracked_on(protection, volumes):
    check(protection, protection.run(full=True), "full")
    balloon = root_of(volumes["data"]) / "balloon"
    free = os.statvfs(root_of(volumes["data"]))
    run("fallocate", "--length", str(free.f_bfree * free.f_frsize - 90 * MIB), balloon)
    backup = protection.run()
    assert backup.state == "failed", backup.log
    assert (backup.status["connection_error"], backup.status["snapshot_error"]) == (False, True)
    name = f"{volumes['data'].uuid} ({volumes['data'].volume.mount_point})"
    assert f"The required free space for volume {volumes['data'].uuid} is " in backup.log
    assert f"Volume {name} is full, not enough free space to perform a backup [failure:volume-full]\n" \
        in backup.log
    assert ("Exception caught during backup run: Cannot backup a full volume [failure:volume-full]\n"
            in backup.log)
    assert {device_of(volumes[each])["state"] for each in ("data", "files")} == {2}
    balloon.unlink()
    for each in ("data", "files"):
        fill(root_of(volumes[each]), "after")
    check(protection, protection.run(), "incremental")


SCRIPT = """#!/bin/sh
echo $1 of {name}
for root in {roots}; do echo $1 > "$root/$1 of {name}"; done
"""


def script_for(volumes, name):
    roots = " ".join(f"'{root_of(volumes[each])}'" for each in ("data", "files"))
    write_script(name, SCRIPT.format(name=name, roots=roots))
    return name


def test_scripts_run_around_the_moment_of_the_snapshots(protection, volumes):
    """The images have what the scripts write before the moment, and not what they write after it."""
    scripts = [script_for(volumes, "first"), script_for(volumes, "second.sh")]
    backup = protection.run(volumes=protection.request(scripts=scripts), full=True)
    check(protection, backup, "full")
    for name in ("data", "files"):
        found = set(path.name for path in root_of(volumes[name]).glob("P* of *"))
        assert found == {f"{mode} of {script}" for mode in ("PRE", "POST") for script in scripts}
        with mounted(protection.images[name].path, volumes[name].volume.file_system) as image:
            assert {path.name for path in image.glob("P* of *")} == {f"PRE of {script}" for script in scripts}
    places = [backup.log.index(text) for text in (
        "Finished execution of the Validate Remote Targets phase.", "Quiescing volumes...",
        'The following PRE quiescing script command will be run: "/etc/tolvu/bek/pps/first PRE"',
        "/etc/tolvu/bek/pps/first: PRE of first\n", "/etc/tolvu/bek/pps/second.sh: PRE of second.sh\n",
        "Volumes Quiesced\n", "Validating snapshot session...", "Unquiescing volumes...",
        "/etc/tolvu/bek/pps/first: POST of first\n", "/etc/tolvu/bek/pps/second.sh: POST of second.sh\n",
        "Volumes Unquiesced\n", "Volumes successfully started snapshotting...", "Beginning copying volume")]
    assert places == sorted(places), backup.log


def test_script_that_is_not_there_fails_the_backup_before_any_snapshot(protection, volumes):
    check(protection, protection.run(full=True), "full")
    fill(root_of(volumes["data"]), "since")
    backup = protection.run(volumes=protection.request(scripts=["nobody"]))
    assert backup.state == "failed", backup.log
    assert ('Quiesce script "/etc/tolvu/bek/pps/nobody" not found; it may have been moved or deleted '
            "[failure:script-missing]\n" in backup.log)
    assert "Validating snapshot session" not in backup.log
    check(protection, protection.run(), "incremental")


def test_script_that_others_could_have_written_fails_the_backup(protection, volumes):
    check(protection, protection.run(full=True), "full")
    script = script_for(volumes, "open")
    path = SCRIPTS / "open"
    path.chmod(0o777)
    backup = protection.run(volumes=protection.request(scripts=[script]))
    assert backup.state == "failed", backup.log
    assert (f'Quiesce script "{path}" refused: others than root can write "{path}" (owner 0, mode 0777) '
            "[failure:script-refused]\n" in backup.log)
    assert "PRE of open" not in backup.log
    assert "Validating snapshot session" not in backup.log
    check(protection, protection.run(), "incremental")


def test_script_that_hangs_is_ended_in_time(protection, volumes):
    write_script("hanging", "#!/bin/sh\nexec sleep 300\n")
    backup = protection.run(volumes=protection.request(scripts=[("hanging", 1)]), full=True)
    check(protection, backup, "full")
    assert backup.log.count("Done executing quiescing script '/etc/tolvu/bek/pps/hanging'\n") == 4


def test_unmounted_volume_fails_the_backup_before_anything_is_touched(protect, protection, volumes):
    """The unmounted volume is the third one. No script is run, and no snapshot of the others is taken."""
    check(protection, protection.run(full=True), "full")
    captures = {name: capture_of(volumes[name]) for name in ("data", "files")}
    third = protect("unmounted")
    script = script_for(volumes, "script")
    requests = [*protection.request(scripts=[script]), *third.request(scripts=[script])]
    backup = protection.start(volumes=requests).wait()
    assert f"Volume {volumes['unmounted'].uuid} is NOT mounted [failure:volume-not-mounted]\n" in backup.log
    assert ("Exception caught during backup run: Cannot backup an unmounted device! "
            "[failure:volume-not-mounted]\n" in backup.log)
    assert "Quiescing volumes..." not in backup.log
    for name in captures:
        assert not list(root_of(volumes[name]).glob("P* of *"))
        assert capture_of(volumes[name]) == captures[name]
        assert device_of(volumes[name])["state"] == 2
        fill(root_of(volumes[name]), "since")
    check(protection, protection.run(), "incremental")
