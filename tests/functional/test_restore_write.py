"""A volume that bek-restore writes back: complete, wherever its image is, and however often it was
interrupted."""
import contextlib
import hashlib
import json
import os
import pty
import random
import re
import resource
import select
import signal
import subprocess
import time

import pytest

from backup_site import EXT4, OVER_BOTH, XFS, check, fill_some, root_of
from lab import filesystems, images
from lab.commands import run
from lab.filesystems import KINDS, kind_of
from lab.image_server import address_of
from lab.loops import attached
from lab.targets import Target
from lab.volumes import probe
from lab.volume_images import age, make_image, mounted
from restore_site import (MIB, SECRET, begin, call, ended, manifest, populate, refusal, restore)

VOLUMES = (EXT4, XFS)
USER, PASSWORD = "agent", "twelve or more"
SAMPLES = {"ext4": (180, "-b", "1024"), "ext3": (90,), "xfs": (320,), "ntfs": (180,), "vfat": (180,)}


@contextlib.contextmanager
def device_of(path, mebibytes, **options):
    """An empty block device, on a new file."""
    with open(path, "wb") as file:
        file.truncate(mebibytes * MIB)
    with attached(path, **options) as device:
        yield device


def blank(path, size):
    """Makes a file full of other data."""
    path.write_bytes(random.Random(size).randbytes(MIB) * (size // MIB))
    return path


def check_volume(path, file_system, expected):
    """Checks that the file system's checker reports no error, and that all files are there."""
    images.fsck(path, file_system)
    with images.mounted(path, file_system) as root:
        assert manifest(root) == expected


@OVER_BOTH
@pytest.mark.parametrize("name", ["data", "files"])
def test_volume_of_a_backup(protect, volumes, target, name, directory):
    """Backed up in full, changed, backed up again; then restored to a new device, over the network."""
    if isinstance(target, Target):
        target.require_chap(USER, PASSWORD)
    fill_some(volumes, [name], "a")
    populate(root_of(volumes[name]))
    protection = protect(name, offset=3 * MIB)
    check(protection, protection.run(full=True), "full")
    fill_some(volumes, [name], "b")
    check(protection, protection.run(), "incremental")
    expected = manifest(root_of(volumes[name]))
    address, secret = address_of(protection.images[name])
    with device_of(directory / "new", volumes[name].volume.mebibytes) as device:
        report = json.loads(restore("write", f"{address}?offset={3 * MIB}", device, "--json", secret=secret))
    assert report["usedBlocksKnown"] and report["comparedBytes"] == report["copiedBytes"]
    assert report["copiedBytes"] <= report["usedBytes"] <= report["copiedBytes"] + MIB < report["volumeBytes"]
    check_volume(directory / "new", volumes[name].volume.file_system, expected)


def aged_image(path, file_system):
    """(path, manifest) of an image of an aged file system."""
    kind = kind_of(file_system)
    mebibytes, *making = SAMPLES[file_system]
    make_image(path, mebibytes, file_system, *making)
    root = path.parent / f"mounted-{path.name}"
    with mounted(path, file_system, root) as (_, tree):
        age(tree, 150, is_plain=kind.is_plain)
        if not kind.is_plain:
            populate(tree)
        subprocess.run(["sync"], check=True)
    with images.mounted(path, file_system) as tree:
        return path, manifest(tree)


@pytest.fixture(scope="module")
def ext4_image(tmp_path_factory):
    return aged_image(tmp_path_factory.mktemp("image") / "ext4.img", "ext4")


@pytest.mark.parametrize("file_system", SAMPLES)
def test_volume_of_each_kind(file_system, directory):
    image, expected = aged_image(directory / "image", file_system)
    before = hashlib.sha256(image.read_bytes()).digest()
    with device_of(directory / "new", 400) as device:
        restore("write", image, device)
    check_volume(directory / "new", file_system, expected)
    assert hashlib.sha256(image.read_bytes()).digest() == before


def test_hfs_volume(directory):
    """The lab can't mount HFS+, so only the used blocks, by HFS+'s own tool, and the bitmap are compared."""
    hfs = next(kind for kind in KINDS if kind.name == "hfs")
    sample = hfs.samples[0]
    image = make_image(directory / "image", sample.mebibytes, sample.file_system, *sample.options)
    target = blank(directory / "new", image.stat().st_size)
    restore("write", image, target)
    images.compare_used(image, target, sample.file_system, excluded=()).check()
    assert run(*hfs.check, target) == run(*hfs.check, image)


def test_kind_that_is_not_known(directory):
    image = blank(directory / "image", 20 * MIB)
    target = directory / "new"
    target.touch()
    report = json.loads(restore("write", image, target, "--json"))
    assert not report["usedBlocksKnown"] and "no kind that is known" in report["reason"]
    assert target.read_bytes() == image.read_bytes()


def test_only_used_blocks_are_written(ext4_image, directory):
    """Unused blocks of the device keep their content, or are discarded."""
    image, _ = ext4_image
    free = images.truth_of(image, "ext4")
    poisoned = bytearray(image.read_bytes())
    for begin_at, length in images.without([(0, len(poisoned))], free.used_extents()):
        poisoned[begin_at:begin_at + length] = b"\xDB" * length
    (directory / "image").write_bytes(poisoned)
    target = directory / "new"
    target.touch()
    restore("write", directory / "image", target)
    # Pages of 4 KiB with at least one used block are written as a whole.
    assert target.read_bytes().count(b"\xDB" * 4096) == 0
    assert os.stat(target).st_blocks * 512 < len(poisoned) / 2


def test_interrupted_at_random_points(ext4_image, directory):
    """The restore is interrupted by SIGKILL, which stands for a power cut of the rescue system, and by users.
    The next run continues from there."""
    image, expected = ext4_image
    source = random.Random(4)
    kills = 0
    with device_of(directory / "new", 200) as device:
        for attempt in range(40):
            process = begin("write", image, device, "--json")
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(source.uniform(0, 0.05 + 0.02 * attempt))
            if process.poll() is None:
                kills += 1
                process.send_signal(source.choice([signal.SIGKILL, signal.SIGTERM]))
            done = ended(process)
            if done.returncode == 0 or probe(device, "TYPE"): # whole, even if the signal came before the end
                break
        assert kills > 0 and probe(device, "TYPE") == "ext4", (kills, done.stderr)
    check_volume(directory / "new", "ext4", expected)


def test_target_goes_away_and_comes_back(ext4_image, directory):
    image, expected = ext4_image
    with Target() as target:
        served = target.add_image("image", image.stat().st_size, poisoned=False)
        served.path.write_bytes(image.read_bytes())
        address, _ = address_of(served)
        with device_of(directory / "new", 200) as device:
            process = begin("write", address, device, "--json", "--verbose")
            time.sleep(0.05)
            target.kill()
            time.sleep(1)
            target.start()
            done = ended(process)
            if done.returncode != 0: # the target was away for too long, or before the start
                restore("write", address, device)
    check_volume(directory / "new", "ext4", expected)


def test_target_that_stays_away(ext4_image, directory):
    image, _ = ext4_image
    with Target() as target:
        served = target.add_image("image", image.stat().st_size, poisoned=False)
        served.path.write_bytes(image.read_bytes())
        address, _ = address_of(served)
        target.kill()
        (directory / "new").touch()
        assert "can't be reached" in refusal("write", address, directory / "new")
    assert (directory / "new").stat().st_size == 0


def test_device_that_is_full(ext4_image, directory, tmpfs):
    """A file can't be extended. When there is room again, the restore continues."""
    image, expected = ext4_image
    small = directory / "small"
    tmpfs(small, "size=8m")
    target = small / "new"
    target.touch()
    assert "No space left on device" in refusal("write", image, target)
    run("mount", "-o", "remount,size=400m", small)
    restore("write", image, target)
    check_volume(target, "ext4", expected)


def test_device_that_is_too_small(ext4_image, directory):
    image, _ = ext4_image
    with device_of(directory / "new", 100) as device:
        said = refusal("write", image, device)
    assert f"{device} has {100 * MIB} bytes, which are too few for a volume of {180 * MIB}" in said
    assert not any((directory / "new").read_bytes())


def test_device_that_is_mounted(ext4_image, directory):
    image, expected = ext4_image
    with device_of(directory / "new", 200) as device:
        run("mkfs.ext4", "-q", device)
        with filesystems.mounted("ext4", device, directory / "there"):
            said = refusal("write", image, device, "--overwrite")
        assert f"{device} is in use" in said and "Unmount or detach it" in said
        restore("write", image, device, "--overwrite")
    check_volume(directory / "new", "ext4", expected)


@pytest.mark.parametrize("make, there", [
    (("mkfs.xfs", "-q", "-f", "-L", "precious"), 'xfs with the label "precious"'),
    (("mkswap",), "swap"),
    (("sfdisk", "-q", "--label", "gpt"), "a table of partitions (gpt)"),
])
def test_device_that_is_not_empty(ext4_image, directory, make, there):
    image, expected = ext4_image
    with device_of(directory / "new", 400) as device:
        run(*make, device, input=",,\n")
        said = refusal("write", image, device)
        assert f"there is {there}" in said and "--overwrite" in said
        assert there in restore("write", image, device, "--dry-run")
        restore("write", image, device, "--overwrite")
    check_volume(directory / "new", "ext4", expected)


def test_device_with_half_of_another_image(ext4_image, directory):
    image, expected = ext4_image
    other = make_image(directory / "other", 400, "xfs")
    target = directory / "new"
    target.touch()
    with open(target, "r+b") as file:
        process = begin("write", other, target)
        while process.poll() is None and os.fstat(file.fileno()).st_size == 0:
            time.sleep(0.001)
        process.kill()
        ended(process)
    if b"BEKREST1" in target.read_bytes()[:8192]: # it was killed in time
        assert "an interrupted run" in refusal("write", image, target)
    restore("write", image, target, "--overwrite")
    check_volume(target, "ext4", expected)


def test_dry_run_writes_nothing(ext4_image, directory):
    image, _ = ext4_image
    with device_of(directory / "new", 200) as device:
        report = json.loads(restore("write", image, device, "--dry-run", "--json"))
        assert report["volumeBytes"] == 180 * MIB and report["content"] is None
        assert restore("write", image, device, "--dry-run").startswith("Would write ")
    assert os.stat(directory / "new").st_blocks == 0


def test_what_can_not_be_meant(ext4_image, directory):
    image, _ = ext4_image
    assert "neither a block device nor a file" in refusal("write", image, directory)
    assert "No such file or directory" in refusal("write", image, directory / "none")
    assert "are one and the same" in refusal("write", image, image, status=2)
    assert "No such file or directory" in refusal("write", directory / "none", image)
    refusal("write", "iscsi://h/nothing", image, status=2)
    assert "--password-file" in refusal("write", "iscsi://me:secret@h/iqn.a/1", image, status=2)


@pytest.fixture
def guarded(ext4_image):
    """An image that needs a password, and the tree in it."""
    with Target() as target:
        target.require_chap(USER, PASSWORD)
        served = target.add_image("image", ext4_image[0].stat().st_size, poisoned=False)
        served.path.write_bytes(ext4_image[0].read_bytes())
        yield address_of(served)[0]


def test_password_in_a_file(guarded, directory):
    (directory / "password").write_text(PASSWORD + "\nnot this\n")
    (directory / "new").touch()
    restore("write", guarded, directory / "new", "--dry-run", "--password-file", directory / "password")
    assert "no secret can be read" in refusal("write", guarded, directory / "new",
                                              "--password-file", directory / "none")


def test_password_that_is_wrong(guarded, directory):
    (directory / "new").touch()
    assert "can't be reached" in refusal("write", guarded, directory / "new", secret="something else!")


def test_password_that_nobody_gives(guarded, directory):
    (directory / "new").touch()
    said = refusal("write", guarded, directory / "new")
    assert SECRET in said and "--password-file" in said


def test_password_at_a_terminal(guarded, directory):
    """The password prompt doesn't echo; the progress is shown."""
    (directory / "new").touch()
    child, terminal = pty.fork()
    if child == 0:
        os.execv(os.environ.get("BEKD_BUILD", "build/release") + "/bek-restore",
                 ["bek-restore", "write", guarded, str(directory / "new")])
    shown = b""
    has_answered = False
    with contextlib.suppress(OSError): # raised when the terminal's other end is closed
        while select.select([terminal], [], [], 60)[0]:
            shown += os.read(terminal, 4096)
            if not has_answered and b": " in shown:
                os.write(terminal, PASSWORD.encode() + b"\n")
                has_answered = True
    assert os.waitpid(child, 0)[1] == 0, shown
    assert PASSWORD.encode() not in shown
    assert re.search(rb"copying  \d+ %  .* of ", shown) and b"Wrote " in shown


def test_export_of_another_server(ext4_image, directory):
    image, expected = ext4_image
    (directory / "new").touch()
    with subprocess.Popen(["nbdkit", "-f", "-U", directory / "socket", "--filter=error", "file", image,
                           "error-pread-rate=0.5%"], stderr=subprocess.DEVNULL) as server:
        try:
            while not (directory / "socket").exists():
                time.sleep(0.01)
            done = call("write", f"nbd+unix:///?socket={directory}/socket", directory / "new")
        finally:
            server.terminate()
    assert done.returncode == 0, done.stderr
    check_volume(directory / "new", "ext4", expected)


@pytest.mark.parametrize("file_system, making", [("ext4", ("-T", "largefile4")), ("xfs", ())])
def test_two_tebibytes_in_bounded_memory(file_system, making, directory):
    image = make_image(directory / "image", 2 << 20, file_system, *making)
    (directory / "new").touch()
    process = begin("write", image, directory / "new",
                    preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_AS, (500 * MIB, 500 * MIB)))
    done = ended(process)
    assert done.returncode == 0, done.stderr
    assert os.stat(directory / "new").st_size == 2 << 40
    assert os.stat(directory / "new").st_blocks <= 1.1 * os.stat(image).st_blocks + 2048
    images.fsck(directory / "new", file_system)
