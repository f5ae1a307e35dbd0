"""Files of an image, listed and restored with all their attributes."""
import contextlib
import os
import pty
import re
import select
import signal
import stat
import subprocess
import time

import pytest

from backup_site import digest, fill
from lab.commands import run
from lab.daemon import program
from lab.filesystems import kind_of
from lab.images import tree_hashes
from lab.targets import Target
from lab.volume_images import mounted
from restore_view_site import (FAILED, MOUNTABLE, SECONDS, WRONG, fails, json_of, make_image,
                               make_loop_nodes, require_nothing_left, restore, servers)

MOMENT = 1_600_000_000_123_456_789
ODD_NAMES = ("a\nb", "-rf", "*?[x]", "sp ace ", "\u00fcml\u00e4ut", "back\\slash", "quo'te\"s", "bell\a")


@pytest.fixture(autouse=True)
def clean_site(site):
    make_loop_nodes()
    yield
    require_nothing_left()


def make_all_kinds(root):
    """Creates one file of each kind that a server's volume may have."""
    fill(root, 1, files=8, largest=60_000)
    odd = root / "odd"
    odd.mkdir()
    for name in ODD_NAMES:
        (odd / name).write_text(name)
    (root / "owned").write_text("owned")
    os.chown(root / "owned", 1234, 4321)
    (root / "owned").chmod(0o4751)
    run("setfattr", "-n", "user.note", "-v", "kept", root / "owned")
    (root / "listed").write_text("with an ACL")
    run("setfattr", "-n", "system.posix_acl_access", "-v",
        "0x0200000001000600ffffffff02000400e703000004000400ffffffff10000600ffffffff20000000ffffffff",
        root / "listed")
    with open(root / "sparse", "wb") as file:
        file.write(b"begin")
        file.seek(8 << 20)
        file.write(b"middle")
        file.truncate(16 << 20)
    os.link(root / "owned", root / "odd/second name")
    (root / "away").symlink_to("/etc/hostname")
    (root / "etc").mkdir()
    (root / "etc/hostname").write_text("of the image")
    (root / "out").symlink_to("/etc")
    (root / "up").symlink_to("../../../../../../etc/hostname")
    os.mkfifo(root / "pipe")
    os.mknod(root / "disk", 0o640 | stat.S_IFBLK, os.makedev(8, 1))
    os.utime(root / "owned", ns=(MOMENT, MOMENT))
    os.utime(odd, ns=(MOMENT, MOMENT))


@pytest.fixture(scope="module")
def whole(tmp_path_factory):
    """(image, its content)"""
    make_loop_nodes()
    trees = []
    image = make_image(tmp_path_factory.mktemp("whole"), "ext4",
                       lambda root: (make_all_kinds(root), (root / "lost+found").rmdir(),
                                     trees.append(tree_hashes(root))))
    return image, trees[0]


def attributes_of(path):
    return {name: os.getxattr(path, name, follow_symlinks=False)
            for name in os.listxattr(path, follow_symlinks=False)}


def test_a_whole_volume_with_all_that_belongs_to_it(whole, directory):
    image, expected = whole
    before = digest(image)
    restore("get", image, "/", directory / "back")
    back = directory / "back"
    assert tree_hashes(back) == expected
    assert attributes_of(back / "owned") == {"user.note": b"kept"}
    assert "system.posix_acl_access" in attributes_of(back / "listed")
    assert (back / "owned").stat().st_ino == (back / "odd/second name").stat().st_ino
    assert (back / "sparse").stat().st_blocks * 512 < 1 << 20
    assert (back / "disk").lstat().st_rdev == os.makedev(8, 1)
    assert stat.S_ISFIFO((back / "pipe").lstat().st_mode)
    assert digest(image) == before


@pytest.mark.parametrize("file_system", [name for name in MOUNTABLE if name != "ext4"])
def test_each_kind(file_system, directory):
    trees = []
    image = make_image(directory, file_system,
                       lambda root: (fill(root, 2, files=8, largest=60_000), trees.append(tree_hashes(root))))
    restore("get", image, "/", directory / "back")
    assert tree_hashes(directory / "back") == trees[0]
    listed = json_of("ls", "-R", image)["entries"]
    assert {entry["path"] for entry in listed} == set(trees[0])


def test_what_an_image_has_for_the_drivers_files_stays_there(directory):
    def protected(root):
        make_all_kinds(root)
        (root / ".tolvu").write_bytes(bytes(1 << 20))
        (root / ".tolvu.inc").write_bytes(bytes(1 << 20))
        root.chmod(0o751)
        os.chown(root, 12, 34)
        run("setfattr", "-n", "user.top", "-v", "kept", root)
        os.utime(root, ns=(MOMENT, MOMENT))

    image = make_image(directory, "ext4", protected)
    back = directory / "back"
    back.mkdir()
    (back / ".tolvu").write_text("of the volume in use")
    restore("get", "--overwrite", image, "/", back)
    assert (back / ".tolvu").read_text() == "of the volume in use"
    assert not (back / ".tolvu.inc").exists() and (back / "owned").stat().st_uid == 1234
    status = back.stat()
    assert (stat.S_IMODE(status.st_mode), status.st_uid, status.st_gid, status.st_mtime_ns) == (
        0o751, 12, 34, MOMENT)
    assert attributes_of(back) == {"user.top": b"kept"}


def test_single_files_of_any_name(whole, directory):
    for number, name in enumerate(ODD_NAMES):
        restore("get", whole[0], f"odd/{name}", directory / f"{number}")
        assert (directory / f"{number}").read_text() == name
    status = (directory / "0").stat()
    restore("get", whole[0], "/owned", directory / "owned")
    owned = (directory / "owned").stat()
    assert (owned.st_uid, owned.st_gid, stat.S_IMODE(owned.st_mode), owned.st_mtime_ns) == (
        1234, 4321, 0o4751, MOMENT)
    assert status.st_size == len(ODD_NAMES[0])


def test_links_of_the_image_never_lead_to_this_machine(whole, directory):
    image, _ = whole
    restore("get", image, "out/hostname", directory / "inside")
    assert (directory / "inside").read_text() == "of the image"
    restore("get", image, "../../etc/hostname", directory / "above")
    assert (directory / "above").read_text() == "of the image"
    for name in ("away", "up"):
        restore("get", image, name, directory / name)
        assert os.path.islink(directory / name)
    assert [entry["path"] for entry in json_of("ls", image, "out/")["entries"]] == ["hostname"]


def test_what_is_there_is_kept_unless_told(whole, directory):
    place = directory / "place"
    place.write_text("precious")
    assert "is there already" in fails("get", whole[0], "owned", place)
    assert place.read_text() == "precious"
    target = directory / "elsewhere"
    target.write_text("precious")
    place.unlink()
    place.symlink_to(target)
    restore("get", "--overwrite", whole[0], "owned", place)
    assert (place.read_text(), place.is_symlink(), target.read_text()) == ("owned", False, "precious")


def test_a_directory_is_filled_up(whole, directory):
    (directory / "odd").mkdir()
    (directory / "odd/own").write_text("own")
    restore("get", "--overwrite", whole[0], "odd", directory / "odd")
    assert sorted(os.listdir(directory / "odd")) == sorted((*ODD_NAMES, "second name", "own"))


def test_what_cannot_be_brought_is_named(whole, directory, tmpfs):
    assert "no/such can't be opened in the image: No such file" in fails("get", whole[0], "no/such",
                                                                         directory / "x")
    assert not (directory / "x").exists()
    tmpfs("/mnt/small", "size=4096")
    errors = restore("get", whole[0], "/", "/mnt/small/back", status=FAILED).stderr
    assert "No space left on device" in errors and "not all of / could be brought" in errors
    restore("get", whole[0], status=WRONG)


def test_a_damaged_file_is_named_and_the_others_come(directory):
    image = make_image(directory, "ext4", lambda root: fill(root, 3, files=8, largest=60_000))
    listed = [entry["path"] for entry in json_of("ls", "-R", image)["entries"] if entry["type"] == "file"]
    inode = run("debugfs", "-R", f'stat "{listed[0]}"', image).split()[1]
    run("debugfs", "-w", "-R", f"set_inode_field <{inode}> block[0] 0xffff", image)
    run("debugfs", "-w", "-R", f"set_inode_field <{inode}> checksum 0x12345678", image)
    errors = restore("get", image, "/", directory / "back", status=FAILED).stderr
    assert listed[0] in errors
    assert all((directory / "back" / path).is_file() for path in listed[1:])


def test_why_a_volume_cannot_be_mounted_is_told_by_its_driver(directory):
    image = make_image(directory, "ntfs", lambda root: None)
    with mounted(image, "ntfs", directory / "looked") as (device, root):
        found = kind_of("ntfs").structures(device, root)
    table = next(offset for offset, text in found.items() if "FILE magic" in text)
    with open(image, "r+b") as file:
        file.seek(table + 6 * 1024) # the record of the cluster bitmap
        file.write(bytes(1024))
    assert "ntfs-3g can't mount it: " in fails("ls", image)


def test_a_listing(whole):
    image, expected = whole
    assert restore("ls", image, "/odd").stdout.splitlines() == [
        "*?[x]", "-rf", "a\\nb", "back\\\\slash", "bell\\007", "quo'te\"s", "second name", "sp ace ",
        "\u00fcml\u00e4ut"]
    listed = {entry["path"]: entry for entry in json_of("ls", "-R", image)["entries"]}
    assert set(listed) == set(expected)
    owned = listed["owned"]
    assert (owned["mode"], owned["owner"], owned["group"]) == ("-rwsr-x--x", 1234, 4321)
    assert (owned["size"], owned["links"]) == (5, 2)
    assert (owned["modified"], owned["modifiedNanoseconds"]) == ("2020-09-13T12:26:40Z", 123_456_789)
    assert (listed["away"]["type"], listed["away"]["target"]) == ("link", "/etc/hostname")
    assert restore("ls", "-l", image, "up").stdout.endswith(" up -> ../../../../../../etc/hostname\n")
    assert json_of("ls", image, "sparse")["entries"][0]["allocated"] < 1 << 20
    assert "can't be opened in the image" in fails("ls", image, "no")


def test_over_iscsi(whole, directory):
    with Target() as target:
        served = target.add_image("data", whole[0].stat().st_size, poisoned=False)
        served.path.write_bytes(whole[0].read_bytes())
        address = f"iscsi://{target.portal}/{target.name}/{served.lun}"
        restore("get", address, "owned", directory / "owned")
    assert (directory / "owned").read_text() == "owned"


def test_a_terminal_sees_how_far_it_is(directory):
    """A terminal shows the progress; messages after that begin on a line of their own."""
    def fill_half(root):
        (root / "full").write_bytes(os.urandom(8 << 20))
        os.link(root / "full", root / "again")
        with open(root / "sparse", "wb") as file:
            file.truncate(1 << 30)

    image = make_image(directory, "ext4", fill_half)
    child, terminal = pty.fork()
    if child == 0:
        os.execv(program("bek-restore"), ["bek-restore", "get", image, "/", str(directory / "back")])
    shown = b""
    with contextlib.suppress(OSError): # raised when the terminal's other end is closed
        while select.select([terminal], [], [], SECONDS)[0]:
            shown += os.read(terminal, 4096)
    assert os.waitpid(child, 0)[1] == 0, shown
    assert re.search(rb"copying  \d+ %  .* of 8\.4 MB", shown), shown
    assert shown.endswith(b"\r\x1b[K")


@pytest.mark.parametrize("number", (signal.SIGKILL, signal.SIGTERM, signal.SIGINT))
def test_ended_in_the_middle_it_leaves_no_process(number, whole, directory):
    started = subprocess.Popen([program("bek-restore"), "get", whole[0], "/", directory / "back"],
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + SECONDS
    while not (directory / "back").exists() and started.poll() is None and time.monotonic() < deadline:
        time.sleep(0.001)
    started.send_signal(number)
    started.wait(SECONDS)
    while servers() and time.monotonic() < deadline:
        time.sleep(0.01)
    assert not servers()
    fails("get", directory / "missing", "/", directory / "other")
