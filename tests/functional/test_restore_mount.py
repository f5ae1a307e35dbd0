"""Images that are mounted on a directory: each kind, from each transport, even if processes or targets
fail."""
import os
import pathlib
import signal
import subprocess

import pytest

from backup_site import digest, fill
from lab.commands import run
from lab.daemon import program
from lab.images import tree_hashes
from lab.targets import Target
from lab.volume_images import mounted
from lab.zephane import ZephaneServer
from restore_view_site import (MOUNTABLE, SECONDS, VIEWS, command_of, fails, json_of, make_image,
                               make_loop_nodes, mount_of, require_nothing_left, restore, servers, states)

SECRET = "not for every eye"


@pytest.fixture(autouse=True)
def clean_site(site):
    make_loop_nodes()
    yield
    for state in states(): # left by a failed test
        restore("umount", state["mountPoint"])
    require_nothing_left()


def some_files(root):
    fill(root, 1, files=12, largest=60_000)


@pytest.fixture(scope="module")
def ext4(tmp_path_factory):
    """(image, its content)"""
    trees = []
    image = make_image(tmp_path_factory.mktemp("ext4"), "ext4",
                       lambda root: (some_files(root), trees.append(tree_hashes(root))))
    return image, trees[0]


@pytest.mark.parametrize("file_system", MOUNTABLE)
def test_all_files_are_shown_and_the_image_stays_as_it_is(file_system, directory):
    trees = []
    image = make_image(directory, file_system,
                       lambda root: (some_files(root), trees.append(tree_hashes(root))))
    before = digest(image)
    with mount_of(image, directory / "view") as root:
        assert tree_hashes(root) == trees[0]
        with pytest.raises(OSError):
            (root / "new").touch()
    assert digest(image) == before
    require_nothing_left()


@pytest.mark.parametrize("file_system", ("ext4", "xfs"))
def test_a_journal_is_replayed_in_the_overlay(file_system, directory):
    image = make_image(directory, file_system, lambda root: None)
    taken = directory / "taken"
    with mounted(image, file_system, directory / "made") as (device, root):
        some_files(root)
        os.sync()
        (root / "last").mkdir()
        run("fsfreeze", "--freeze", root)
        run("fsfreeze", "--unfreeze", root)
        (root / "behind").mkdir()
        os.sync()
        run("dd", f"if={device}", f"of={taken}", "bs=1M", "iflag=direct")
        expected = tree_hashes(root)
    before = digest(taken)
    with mount_of(taken, directory / "view") as shown:
        assert tree_hashes(shown) == expected
    assert digest(taken) == before


def test_at_an_offset(ext4, directory):
    image, expected = ext4
    moved = directory / "moved"
    moved.write_bytes(bytes(1 << 20) + image.read_bytes())
    with mount_of(moved, directory / "view", "--offset", 1 << 20) as root:
        assert tree_hashes(root) == expected


def test_over_iscsi_with_a_secret_that_no_command_line_has(ext4, directory):
    image, expected = ext4
    with Target() as target:
        served = target.add_image("data", image.stat().st_size, poisoned=False)
        served.path.write_bytes(image.read_bytes())
        target.require_chap("ada", SECRET)
        address = f"iscsi://ada@{target.portal}/{target.name}/{served.lun}"
        with mount_of(address, directory / "view", secret=SECRET) as root:
            assert tree_hashes(root) == expected
            words = [word for pid in servers() for word in command_of(pid)]
            assert words and not any(SECRET.encode() in word for word in words)
            assert SECRET not in "".join(path.read_text() for path in VIEWS.glob("*/*") if path.is_file())
        assert digest(served.path) == digest(image)


def test_over_zephane(ext4, directory):
    image, expected = ext4
    with ZephaneServer() as server:
        served = server.add_image("data", image.stat().st_size, poisoned=False)
        served.path.write_bytes(image.read_bytes())
        address = f"zephane://{server.portal}/{served.name}/{served.lun}"
        with mount_of(address, directory / "view", secret=served.secret) as root:
            assert tree_hashes(root) == expected
            words = [word for pid in servers() for word in command_of(pid)]
            assert words and not any(served.secret.encode() in word for word in words)


def test_a_target_that_goes_fails_reads_and_can_be_unmounted(ext4, directory):
    image, expected = ext4
    view = directory / "view"
    view.mkdir()
    with ZephaneServer() as server:
        served = server.add_image("data", image.stat().st_size, poisoned=False)
        served.path.write_bytes(image.read_bytes())
        restore("mount", f"zephane://{server.portal}/{served.name}/{served.lun}", view, secret=served.secret)
    file = next(name for name, entry in expected.items() if entry.size > 0)
    with pytest.raises(OSError):
        (view / file).read_bytes()
    restore("umount", view)
    assert not os.path.ismount(view)
    require_nothing_left()


@pytest.mark.parametrize("victim", (b"nbdkit", b"nbdfuse"))
def test_a_killed_server_can_be_unmounted(victim, ext4, directory):
    view = directory / "view"
    view.mkdir()
    restore("mount", ext4[0], view)
    pid, = servers(victim)
    os.kill(pid, signal.SIGKILL)
    restore("umount", view)
    assert not os.path.ismount(view)
    require_nothing_left()


def test_what_was_unmounted_by_hand_is_ended(ext4, directory):
    view = directory / "view"
    view.mkdir()
    restore("mount", ext4[0], view)
    run("umount", view)
    assert servers()
    restore("umount", view)
    assert not servers()


def test_what_was_unmounted_by_hand_is_ended_by_the_next_start(ext4, directory):
    view = directory / "view"
    view.mkdir()
    restore("mount", ext4[0], view)
    run("umount", view)
    fails("mount", directory / "missing", view)
    assert not servers()


@pytest.mark.parametrize("milliseconds", (2, 5, 10, 20, 30, 40, 60, 80, 120))
def test_killed_at_any_time_it_leaves_nothing_that_stays(milliseconds, ext4, directory):
    view = directory / "view"
    view.mkdir()
    started = subprocess.Popen([program("bek-restore"), "mount", ext4[0], view], stdout=subprocess.DEVNULL)
    try:
        started.wait(milliseconds / 1000)
    except subprocess.TimeoutExpired:
        started.kill()
    started.wait(SECONDS)
    if os.path.ismount(view):
        restore("umount", view)
    assert "No such file" in fails("mount", directory / "missing", view)
    require_nothing_left()


def test_one_that_is_in_use_stays(ext4, directory):
    with mount_of(ext4[0], directory / "view") as root:
        with open(next(path for path in root.rglob("*") if path.is_file()), "rb"):
            assert "can't be unmounted: " in fails("umount", root)
            assert tree_hashes(root) == ext4[1]


def test_two_views_of_one_image(ext4, directory):
    with mount_of(ext4[0], directory / "one") as one, mount_of(ext4[0], directory / "other") as other:
        assert tree_hashes(one) == tree_hashes(other) == ext4[1]


def test_told_to_programs(ext4, directory):
    view = directory / "view"
    view.mkdir()
    found = json_of("mount", ext4[0], view)
    assert (found["mountPoint"], found["kind"]) == (str(view), "ext4")
    assert pathlib.Path(found["device"]).is_block_device()
    assert json_of("umount", view) == {"mountPoint": str(view)}


def test_what_cannot_be_mounted(directory):
    view = directory / "view"
    view.mkdir()
    empty = directory / "empty"
    empty.write_bytes(bytes(1 << 22))
    assert fails("mount", empty, view) == "no file system is found in it"
    assert "No such file" in fails("mount", directory / "missing", view)
    assert "is no directory" in fails("mount", empty, directory / "missing")
    assert fails("umount", view) == f"no image is mounted at {view} by bek-restore"


def test_a_kind_that_this_kernel_lacks(directory):
    image = directory / "image"
    view = directory / "view"
    view.mkdir()
    with open(image, "wb") as file:
        file.truncate(16 << 20)
    run("lab/hfs_maker.py", image)
    if "hfsplus" in pathlib.Path("/proc/filesystems").read_text(encoding="ascii"):
        with mount_of(image, view):
            assert os.path.ismount(view)
    else:
        assert fails("mount", image, view) == (
            "nothing on this machine mounts hfsplus: boot a kernel that has it, such as that of the package "
            "linux-image-amd64")


def test_an_image_of_two_tebibytes_takes_little(directory):
    image = directory / "image"
    with open(image, "wb") as file:
        file.truncate(2 << 40)
    run("mkfs.xfs", "-q", "-f", image)
    with mount_of(image, directory / "view") as root:
        assert list(root.iterdir()) == []
        for pid in servers():
            peak = next(line for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines()
                        if line.startswith("VmHWM"))
            assert int(peak.split()[1]) < 64 << 10, command_of(pid)
