"""Whether an image can be trusted: each check, and each kind of damage with its own text."""
import contextlib
import os
import pathlib
import shutil
import sqlite3
import subprocess
import zlib

import pytest

from backup_site import digest, fill
from lab.commands import run
from lab.filesystems import kind_of
from lab.services import wait_until
from lab.targets import Target
from lab.volume_images import mounted
from restore_view_site import (DIFFERS, FAILED, MOUNTABLE, SECONDS, WRONG, fails, json_of, make_image,
                               make_loop_nodes, require_nothing_left, restore)

HEAD = 10 << 20
PAGE = 4096


@pytest.fixture(autouse=True)
def clean_site(site):
    make_loop_nodes()
    yield
    require_nothing_left()


def some_files(root):
    fill(root, 1, files=12, largest=60_000)


def with_note(root):
    some_files(root)
    (root / "note").write_bytes(b"n" * 3 * PAGE)
    run("setfattr", "-n", "user.note", "-v", "kept", root / "note")


@pytest.fixture(scope="module")
def ext4(tmp_path_factory):
    make_loop_nodes()
    return make_image(tmp_path_factory.mktemp("ext4"), "ext4", with_note)


@pytest.fixture
def copy(ext4, directory):
    return pathlib.Path(shutil.copy(ext4, directory / "copy"))


def poke(path, offset, data):
    with open(path, "r+b") as file:
        file.seek(offset)
        file.write(data)


def damage_of(*arguments):
    """{kind: text} of an untrusted image, and the last line of the output for people."""
    found = json_of("check", *arguments, status=DIFFERS)
    assert not found["trusted"]
    assert found["conclusion"].startswith(f"{arguments[-1]} can't be trusted: "), found
    return {each["kind"]: each["text"] for each in found["damage"]}


def place_of(image, name):
    """The offset of a file's first block."""
    return int(run("debugfs", "-R", f"bmap {name} 0", image)) * int(
        run("dumpe2fs", "-h", image).split("Block size:")[1].split()[0])


@pytest.mark.parametrize("file_system", MOUNTABLE)
def test_a_good_image_of_each_kind(file_system, directory):
    image = make_image(directory, file_system, some_files)
    snapshot = shutil.copy(image, directory / "snapshot")
    before = digest(image)
    found = json_of("check", "--against", snapshot, "--files", image)
    assert found["trusted"] and found["damage"] == [] and found["notProven"] == [], found
    assert found["comparedFiles"] > 12 and found["comparedBytes"] > 1 << 19
    assert (digest(image), digest(snapshot)) == (before, before)


@pytest.mark.parametrize("file_system", MOUNTABLE)
def test_a_snapshot_of_a_volume_in_use(file_system, directory):
    image = make_image(directory, file_system, some_files)
    taken = directory / "taken"
    with mounted(image, file_system, directory / "made") as (device, root):
        fill(root, 2, files=12, largest=60_000)
        os.sync()
        if kind_of(file_system).can_freeze:
            run("fsfreeze", "--freeze", root)
            run("fsfreeze", "--unfreeze", root)
        (root / "behind").mkdir() # so that there is something in the journal
        os.sync()
        run("dd", f"if={device}", f"of={taken}", "bs=1M", "iflag=direct")
    shutil.copy(taken, directory / "image")
    before = digest(taken)
    conclusion = restore("check", "--against", taken, "--files", directory / "image").stdout
    assert conclusion.startswith(f"{directory}/image can be trusted: "), conclusion
    assert len(conclusion.splitlines()) == 1
    assert digest(taken) == digest(directory / "image") == before


def test_hfs_plus_as_far_as_it_goes(directory):
    image = directory / "image"
    with open(image, "wb") as file:
        file.truncate(16 << 20)
    run("lab/hfs_maker.py", image)
    if shutil.which("fsck.hfsplus") is None:
        said = restore("check", image, status=FAILED).stdout
        assert f"{image} can't be judged: fsck.hfsplus isn't there; install hfsprogs" in said
    found = json_of("check", "--against", shutil.copy(image, directory / "snapshot"), image)
    assert found["trusted"] and "of used blocks are those of" in found["conclusion"]


def test_what_is_not_in_use_may_differ(ext4, copy):
    free = next(place for place in range((20 << 20), (24 << 20), PAGE)
                if open(ext4, "rb").read()[place:place + PAGE] == bytes(PAGE))
    poke(copy, free, b"x" * PAGE)
    assert json_of("check", "--against", ext4, "--files", copy)["trusted"]


def test_the_drivers_own_files_may_differ(directory):
    image = make_image(directory, "ext4",
                       lambda root: (with_note(root), (root / ".tolvu").write_bytes(b"c" * (1 << 20)),
                                     (root / ".tolvu.inc").write_bytes(b"i" * 5000)))
    snapshot = shutil.copy(image, directory / "snapshot")
    poke(image, place_of(image, ".tolvu") + 5000, b"other")
    poke(image, place_of(image, ".tolvu.inc"), b"other")
    assert json_of("check", "--against", snapshot, "--files", image)["trusted"]


def test_no_file_system(directory):
    image = directory / "image"
    image.write_bytes(bytes(16 << 20))
    assert damage_of(image) == {"no-file-system": "no file system is found in it"}
    said = restore("check", image, status=DIFFERS).stdout
    assert said == f"{image} can't be trusted: no file system is found in it\n"


def test_a_map_that_cannot_be_read(directory):
    image = make_image(directory, "xfs", some_files)
    poke(image, 512, bytes(512)) # the free space of the first group
    found = damage_of(image)
    assert found["map"].startswith("its map of used blocks can't be read: "), found


@pytest.mark.parametrize("file_system", MOUNTABLE)
def test_what_a_checker_finds(file_system, directory):
    image = make_image(directory, file_system, some_files)
    with mounted(image, file_system, directory / "looked") as (device, root):
        structures = kind_of(file_system).structures(device, root)
    offset = max(structures)
    poke(image, offset, bytes(PAGE if file_system != "vfat" else 512))
    found = damage_of(image)
    assert set(found) & {"checker", "journal"}, found


def test_a_checker_is_quoted(copy):
    inode = run("debugfs", "-R", "stat note", copy).split()[1]
    run("debugfs", "-w", "-R", f"clri <{inode}>", copy)
    said = restore("check", copy, status=DIFFERS).stdout
    assert "Entry 'note' in / (2) has deleted/unused inode" in said
    assert said.splitlines()[-1].startswith(
        f"{copy} can't be trusted: e2fsck finds the file system damaged (status 4): ")


def test_a_block_that_differs_is_named_with_its_file(ext4, copy):
    place = place_of(copy, "note") + PAGE + 17
    poke(copy, place, b"!")
    found = damage_of("--against", ext4, "--files", copy)
    assert found["blocks"] == f"the block with byte {place} differs from {ext4}: it belongs to /note"
    assert found["files"] == (f"1 of its files differ from {ext4}: /note: its content differs at byte "
                              f"{PAGE + 17}")


@pytest.mark.parametrize("change, text", (
    (lambda root: (root / "note").chmod(0o600), "/note: its mode differs"),
    (lambda root: os.chown(root / "note", 7, 8), "/note: its owner differs"),
    (lambda root: os.utime(root / "note", ns=(5, 5)), "/note: its time differs"),
    (lambda root: os.setxattr(root / "note", "user.note", b"other"), "/note: its extended attributes differ"),
    (lambda root: (root / "note").unlink(), "/note: missing in the image"),
    (lambda root: (root / "new").symlink_to("x"), "/new: only in the image"),
), ids=("mode", "owner", "time", "attribute", "missing", "new"))
def test_a_file_that_differs_is_named(change, text, ext4, copy, directory):
    with mounted(copy, "ext4", directory / "changed") as (_, root):
        change(root)
    said = restore("check", "--against", ext4, "--files", copy, status=DIFFERS).stdout
    assert text in said


def make_database(path, image, value):
    uuid = run("blkid", "-p", "-s", "UUID", "-o", "value", image)
    with contextlib.closing(sqlite3.connect(path)) as database, database:
        database.execute("create table device (id integer not null, ip text, agentUUID text)")
        database.execute("create table config (id integer primary key, key text not null, value text null)")
        database.execute("create table volumes (volume_uuid text primary key not null, image_checksum text, "
                         "backup_status text, image_checksum_type text)")
        database.execute("insert into volumes values (?, ?, 'unknown', 'gcrypt32crc')", (uuid, str(value)))


def test_the_head_that_the_agent_has_noted(copy, directory):
    database = directory / "agent.sqlite"
    make_database(database, copy, zlib.crc32(copy.read_bytes()[:HEAD]))
    held = sqlite3.connect(database, isolation_level=None)
    held.execute("begin immediate") # bek-restore must not wait for locks
    found = json_of("check", "--database", database, copy)
    held.close()
    assert found["trusted"] and "its head is what the last backup has left" in found["proven"]
    free = copy.read_bytes().rindex(bytes(PAGE), 0, HEAD)
    poke(copy, free, b"!")
    assert damage_of("--database", database, copy)["head"] == (
        "its first 10 MiB are not what the last backup has left: it is another image, or it was changed "
        "since")


def test_a_head_that_nobody_has_noted(ext4, copy, directory):
    database = directory / "agent.sqlite"
    make_database(database, copy, 0)
    found = json_of("check", "--database", database, copy)
    assert found["trusted"] and found["notProven"] == ["the agent's database has no checksum of this image"]
    database.write_bytes(b"none at all")
    found = json_of("check", "--database", database, copy)
    assert found["notProven"] == ["its head wasn't compared: The file is no database"]


def test_the_agents_own_database_is_found(copy, directory):
    place = pathlib.Path("/etc/tolvu/bek/agent.sqlite")
    place.parent.mkdir(parents=True, exist_ok=True)
    make_database(place, copy, zlib.crc32(copy.read_bytes()[:HEAD]))
    assert "its head is what the last backup has left" in json_of("check", copy)["proven"]


@contextlib.contextmanager
def with_bad_place(image, offset, directory):
    """The address of an image with a page that can't be read."""
    bad = directory / "bad"
    size = image.stat().st_size
    bad.write_text(f"0x0 ? 1\n0x0 {offset:#x} +\n{offset:#x} 0x1000 -\n"
                   f"{offset + PAGE:#x} {size - offset - PAGE:#x} +\n")
    path = directory / "nbd"
    server = subprocess.Popen(["nbdkit", "--foreground", "--unix", path, "--filter=ddrescue", "file", image,
                               f"ddrescue-mapfile={bad}"], stderr=subprocess.DEVNULL)
    try:
        wait_until(path.exists, 20, "nbdkit serving")
        yield f"nbd+unix:///?socket={path}"
    finally:
        server.terminate()
        server.wait()


def test_a_place_that_cannot_be_read_is_named(ext4, directory):
    place = place_of(ext4, "note")
    with with_bad_place(ext4, place, directory) as address:
        found = json_of("check", "--against", ext4, address, status=DIFFERS)
    assert [each["kind"] for each in found["damage"]] == ["unreadable"], found
    assert f"reading {address} at byte " in found["conclusion"]


@pytest.mark.parametrize("file_system", MOUNTABLE)
def test_an_image_cut_short(file_system, directory):
    image = make_image(directory, file_system, some_files)
    os.truncate(image, image.stat().st_size - (1 << 20))
    found = damage_of(image)
    assert "checker" in found or found.get("short") == "it ends before its volume does", found


def test_over_iscsi_with_a_secret_that_can_be_read_once(ext4, directory):
    with Target() as target:
        served = target.add_image("data", ext4.stat().st_size, poisoned=False)
        served.path.write_bytes(ext4.read_bytes())
        target.require_chap("ada", "not for every eye")
        address = f"iscsi://ada@{target.portal}/{target.name}/{served.lun}"
        pipe = directory / "secret"
        os.mkfifo(pipe)
        writer = subprocess.Popen(["sh", "-c", f"echo 'not for every eye' > {pipe}"])
        found = json_of("check", "--against", ext4, "--files", "--password-file", pipe, address)
        assert found["trusted"] and writer.wait(SECONDS) == 0
        assert digest(served.path) == digest(ext4)


def test_wrong_calls_and_what_is_not_there(ext4, directory):
    assert "--against" in fails("check", "--files", ext4, status=WRONG)
    assert "No such file" in fails("check", directory / "missing")
    assert "No such file" in fails("check", "--against", directory / "missing", ext4)
