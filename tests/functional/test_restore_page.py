"""docs/restore.md: single files, whether an image can be trusted, and an audit by samples. The restore of a
server is tested in tests/machine."""
import os
import pathlib
import subprocess

import pytest

from backup_site import EXT4, check
from lab import images
from lab.backups import capture_of
from lab.daemon import program
from lab.image_server import address_of
from pages import ROOT, SH, Page, check_blocks
from restore_site import SECRET

PAGE = Page(ROOT / "docs" / "restore.md")
VOLUMES = (EXT4,)
OF_MACHINES = ("", " bios", " uefi", " server", " larger", " larger behind LVM", " get", " esp")


def blocks(kind):
    found = PAGE.of(f"{SH} {kind}")
    assert found, kind
    return found


def test_every_command_belongs_to_a_test():
    assert {block.kind for block in PAGE.blocks} <= {f"{SH}{more}" for more in OF_MACHINES} | {
        f"{SH} files", f"{SH} trust", f"{SH} audit"}


@pytest.fixture
def backed_up(protect, volumes):
    """A volume with a file, and its image."""
    root = pathlib.Path(volumes["data"].volume.mount_point)
    (root / "srv/ada").mkdir(parents=True)
    (root / "srv/ada/letter.txt").write_text("Dear Charles")
    os.chown(root / "srv/ada/letter.txt", 1815, 1852)
    protection = protect("data")
    check(protection, protection.run(full=True), "full")
    return protection


@pytest.fixture
def follow(backed_up, tmp_path):
    """follow(KIND, NAME=VALUE...) runs the blocks of a kind, in an administrator's shell."""
    address, secret = address_of(backed_up.images["data"])

    def run(kind, **variables):
        directory = pathlib.Path(program("bek-restore")).resolve().parent
        environment = os.environ | {SECRET: secret, "images": address.rpartition("/")[0], **variables,
                                    "PATH": f"{directory}:{os.environ['PATH']}"}

        def execute(script):
            done = subprocess.run(["bash", "-c", script], cwd=tmp_path, env=environment, text=True,
                                  check=False, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                  timeout=300)
            return done.returncode, done.stdout
        return check_blocks(blocks(kind), execute)
    return run


def test_single_files(follow, volumes, tmpfs):
    tmpfs("/root", "size=64m")
    listed, _, looked = follow("files")
    root = pathlib.Path(volumes["data"].volume.mount_point)
    assert "ada" in listed and "/mnt/image/srv/ada/letter.txt" in looked
    assert images.tree_hashes("/root/ada-as-she-was") == images.tree_hashes(root / "srv/ada")
    letter = pathlib.Path("/root/letter.txt")
    assert letter.read_text() == "Dear Charles"
    assert (letter.stat().st_uid, letter.stat().st_gid) == (1815, 1852)
    assert not os.path.ismount("/mnt/image")


def test_whether_it_can_be_trusted(follow, volumes):
    alone, beside = follow("trust", snapshot=str(capture_of(volumes["data"])))
    assert "e2fsck finds nothing wrong" in alone and "of used blocks are those of" in beside


def test_a_sample(follow, volumes):
    [told] = follow("audit", volume=volumes["data"].volume.mount_point)
    assert "0 in use" in told and "0 differ" in told
