"""The lab's own iSCSI target: the properties that the tests of the agent's transport rely on."""
import contextlib
import os
import pathlib
import signal
import subprocess
import sys
import threading

import pytest

from initiator import Initiator, InitiatorError
from lab import poison
from lab.image_server import Writes
from lab.services import wait_until
from lab.targets import Target
from lab.volumes import Disk, Volume

MIB = 1 << 20
SECONDS = 20
ROOT = pathlib.Path(__file__).resolve().parents[2]
USER, PASSWORD = "appliance", "a long secret"


def tgtd_processes():
    """The tgtd processes of this namespace that haven't ended."""
    found = set()
    own = os.readlink("/proc/self/ns/mnt")
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            if (process / "comm").read_text() == "tgtd\n" and os.readlink(process / "ns/mnt") == own:
                found.add(int(process.name))
    return found


@pytest.mark.parametrize("block_size", [512, 4096])
def test_image_shows_its_size_and_poison(target, block_size):
    image = target.add_image("data", 5 * MIB, block_size)
    assert image.lun == 1
    with Initiator(target, image.lun) as initiator:
        assert (initiator.blocks, initiator.block_size) == (5 * MIB // block_size, block_size)
        mebibyte = MIB // block_size
        content = initiator.read(0, mebibyte) + initiator.read(4 * mebibyte, mebibyte)
    assert poison.is_poison(content)
    assert 0 not in content


@pytest.mark.parametrize("size", [1, poison.SEED_BYTES - 1, poison.SEED_BYTES, 3 * poison.SEED_BYTES + 512])
def test_poison_fills_an_image_to_the_last_byte(tmp_path, size):
    poison.make_image(tmp_path / "image", size)
    content = (tmp_path / "image").read_bytes()
    assert len(content) == size
    assert poison.is_poison(content)
    assert not poison.is_poison(content[:-1] + b"\0")


def test_units_are_apart(target):
    """Data written to one image is in its file, and in no other."""
    images = [target.add_image(name, MIB) for name in ("data", "files")]
    assert [image.lun for image in images] == [1, 2]
    with Initiator(target, 2) as initiator:
        initiator.write(8, b"w" * 512)
        assert initiator.read(8, 1) == b"w" * 512
    assert poison.is_poison(images[0].path.read_bytes())
    assert images[1].path.read_bytes()[8 * 512:9 * 512] == b"w" * 512


def test_unit_that_is_not_there(target):
    target.add_image("data", MIB)
    with pytest.raises(InitiatorError, match="LOGICAL_UNIT_NOT_SUPPORTED"), Initiator(target, 2):
        pass


def test_two_targets_at_once(target):
    with Target(port=3261, name="iqn.2026-01.example:other") as other:
        target.add_image("data", MIB)
        other.add_image("data", 2 * MIB)
        for portal, blocks in ((target, 2048), (other, 4096)):
            with Initiator(portal, 1) as initiator:
                assert initiator.blocks == blocks


def test_portal_in_use_is_an_error(target):
    with pytest.raises(OSError, match="in use"), Target(port=target.port):
        pass


def check_chap(target):
    with Initiator(target, 1, USER, PASSWORD) as initiator:
        assert initiator.blocks == 2048
    for user, password in ((USER, "a wrong secret"), ("nobody", PASSWORD), ("", "")):
        with pytest.raises(InitiatorError), Initiator(target, 1, user, password):
            pass


def test_chap_keeps_others_out(target):
    target.add_image("data", MIB)
    target.require_chap(USER, PASSWORD)
    check_chap(target)
    target.restart()
    check_chap(target)


def test_writes_are_counted_command_by_command(target):
    """Each image's writes are counted, whatever their length, across sessions; reads aren't counted."""
    data, files = target.add_image("data", 16 * MIB), target.add_image("files", 16 * MIB, 4096)
    lengths = (512, 4096, 65536, 262144 + 512, MIB, 4 * MIB)
    assert target.writes() == Writes(0, 0)
    for length in lengths:
        with Initiator(target, data.lun) as initiator:
            initiator.write(1, b"w" * length)
            initiator.read(0, 2048)
    assert data.writes() == target.writes() == Writes(len(lengths), sum(lengths))
    before = target.writes()
    with Initiator(target, files.lun) as initiator:
        for _ in range(1000):
            initiator.write(0, b"w" * 4096)
    assert target.writes() - before == files.writes() == Writes(1000, 4096000)


def test_killed_target_comes_back_with_all_it_was_given(target):
    data, files = target.add_image("data", 4 * MIB), target.add_image("files", 4 * MIB, 4096)
    with Initiator(target, data.lun) as initiator:
        initiator.write(0, b"before" * 512)
        target.kill()
        assert data.writes() == Writes(1, 3072)
        with pytest.raises(InitiatorError):
            initiator.write(0, b"lost!!" * 512)
    with pytest.raises(InitiatorError), Initiator(target, data.lun):
        pass
    target.restart()
    with Initiator(target, data.lun) as initiator:
        assert initiator.read(0, 6) == b"before" * 512
        initiator.write(8, b"after" * 512)
    with Initiator(target, files.lun) as initiator:
        assert (initiator.blocks, initiator.block_size) == (1024, 4096)
    assert data.writes() == Writes(2, 3072 + 2560)


def test_restart_ends_what_is_running(target):
    target.add_image("data", MIB)
    first = target.pid
    target.restart()
    assert tgtd_processes() == {target.pid} != {first}


def test_paused_target_lets_initiators_wait(target):
    image = target.add_image("data", MIB)
    with Initiator(target, image.lun, seconds=SECONDS) as initiator:
        target.pause()
        writer = threading.Thread(target=initiator.write, args=(0, b"w" * 512))
        writer.start()
        with pytest.raises(InitiatorError), Initiator(target, image.lun, seconds=1): # the default is longer
            pass
        assert writer.is_alive()
        assert image.writes() == Writes(0, 0)
        target.resume()
        writer.join(SECONDS)
        assert image.writes() == Writes(1, 512)


def test_only_thin_images_can_be_punched(target):
    thick, thin = target.add_image("thick", 4 * MIB), target.add_image("thin", 4 * MIB, thin=True)
    with Initiator(target, thick.lun) as initiator, pytest.raises(InitiatorError):
        initiator.unmap(2048, 2048)
    assert poison.is_poison(thick.path.read_bytes())
    target.restart()
    with Initiator(target, thin.lun) as initiator:
        initiator.unmap(2048, 2048)
        assert initiator.read(2048, 2048) == bytes(MIB)
        assert poison.is_poison(initiator.read(0, 2048))
    assert thin.path.stat().st_blocks * 512 == 3 * MIB
    assert thin.writes() == Writes(0, 0)


def test_poison_costs_nothing_where_blocks_can_be_shared(site):
    store = pathlib.Path("/tmp/store")
    with Disk([Volume("store", "xfs", mebibytes=512, mount_point=str(store))]), \
            Target(directory=store) as target:
        free = os.statvfs(store).f_bfree * os.statvfs(store).f_frsize
        images = [target.add_image(f"image{number}", 1024 * MIB) for number in range(4)]
        assert free - os.statvfs(store).f_bfree * os.statvfs(store).f_frsize < 40 * MIB
        with Initiator(target, images[0].lun) as initiator:
            initiator.write(0, b"w" * MIB)
        for image in images:
            with open(image.path, "rb") as file:
                assert poison.is_poison(file.read(MIB)) is (image is not images[0])


def traces():
    return [path for place in ("/tmp", "/run") for path in pathlib.Path(place).glob("*")
            if path.name.startswith(("images-", "tgtd-"))]


def test_nothing_stays_behind():
    def crash(target):
        os.kill(target.pid, signal.SIGKILL)

    for ending in (Target.kill, Target.pause, Target.restart, crash):
        with Target() as target:
            image = target.add_image("data", MIB)
            with Initiator(target, image.lun, seconds=1):
                assert len(traces()) == 2
                ending(target)
        assert (traces(), tgtd_processes()) == ([], set())


def test_target_ends_with_who_started_it():
    starter = subprocess.Popen(
        [sys.executable, "-c", "from lab.targets import Target\nwith Target() as target:\n"
         "    print(target.pid, flush=True)\n    input()"],
        cwd=ROOT, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    pid = int(starter.stdout.readline())
    assert tgtd_processes() == {pid}
    starter.kill()
    starter.communicate()
    wait_until(lambda: tgtd_processes() == set(), SECONDS, "tgtd gone")
    for path in traces():
        subprocess.run(["rm", "-r", path], check=True)
