"""The driver's use of device-mapper: devices, a volume that is held, a snapshot that is watched."""
import contextlib
import mmap
import os
import pathlib
import signal
import subprocess
import threading
import time

import pytest

from lab.commands import run
from lab.daemon import program
from lab.loops import attached

SECTORS = 400 << 11
COW_SECTORS = 8 << 11
MINE = "TOLVU-1-"
LOWER, MID, COW, SNAPSHOT = (MINE + layer for layer in ("lower", "mid", "cow", "snapshot"))
VOLUME = pathlib.Path("/dev/group/volume")
PATIENCE = 10


def call(*words, status=0, **options):
    """Runs the program that calls the driver's parts, and returns what it prints."""
    done = subprocess.run([program("TolvubdDm"), *words], capture_output=True, text=True, check=False,
                          timeout=60, **options)
    assert done.returncode == status, done.stderr
    return done.stdout


def make(name, table):
    """Makes a device, and waits until udev has processed it; returns MAJOR:MINOR."""
    number = call("create", name, MINE + name).split()[-1]
    call("load", MINE + name, input=table)
    call("resume", MINE + name, "hidden")
    run("udevadm", "settle")
    return number


def eventually(condition, seconds=PATIENCE):
    end = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < end
        time.sleep(0.001)


def processes(name):
    """The PIDs of the processes with a name."""
    found = []
    for path in pathlib.Path("/proc").glob("[0-9]*/comm"):
        with contextlib.suppress(OSError):
            if path.read_text(encoding="ascii") == name + "\n":
                found.append(int(path.parent.name))
    return found


def locked_memory(process):
    """The amount of a process's locked memory, in KiB."""
    status = pathlib.Path(f"/proc/{process}/status").read_text(encoding="ascii")
    return int(status.split("VmLck:")[1].split()[0])


def node(uuid):
    return pathlib.Path("/dev/dm-" + call("prefix", uuid).split(":")[-1].strip())


def can_be_read(device):
    """Whether the device can be read, bypassing the page cache."""
    memory = mmap.mmap(-1, 4096)
    descriptor = os.open(device, os.O_RDONLY | os.O_DIRECT)
    try:
        return os.readv(descriptor, [memory]) == 4096
    except OSError:
        return False
    finally:
        os.close(descriptor)


@pytest.fixture(scope="module")
def group(tmp_path_factory):
    """A volume group on a loop device."""
    image = tmp_path_factory.mktemp("group") / "image"
    with open(image, "wb") as file:
        file.truncate(1 << 30)
    with attached(image) as device:
        run("vgcreate", "-q", "group", device)
        yield
        run("vgremove", "-q", "-f", "group")


@pytest.fixture
def volume(group, tmp_path):
    """The device-mapper UUID of a logical volume with a mounted file system, and its mount point."""
    run("lvcreate", "-q", "-y", "-L", f"{SECTORS}s", "-n", "volume", "group")
    run("lvcreate", "-q", "-y", "-L", f"{COW_SECTORS}s", "-n", "store", "group")
    run("mkfs.ext4", "-q", "-E", "lazy_itable_init=0", VOLUME) # otherwise the kernel would write to it later
    run("mount", VOLUME, tmp_path)
    run("udevadm", "settle")
    uuid = run("dmsetup", "info", "-c", "--noheadings", "-o", "uuid", VOLUME)
    own = call("table", uuid)
    yield uuid, tmp_path
    if call("table", uuid) != own:
        call("load", uuid, input=own)
        call("resume", uuid, "shown")
    for name in (SNAPSHOT, MID, COW, LOWER):
        if call("prefix", name):
            call("remove", name)
    run("umount", tmp_path)
    run("lvremove", "-q", "-y", "group")


@pytest.fixture
def snapshot(volume):
    """A snapshot of the volume; its store is another volume."""
    uuid, _ = volume
    lower = make("lower", call("table", uuid))
    store = run("dmsetup", "info", "-c", "--noheadings", "-o", "major,minor", "/dev/group/store")
    cow = make("cow", f"0 {COW_SECTORS} linear {store} 0")
    run("dd", "if=/dev/zero", f"of={node(COW)}", "bs=4096", "count=1", "oflag=direct")
    for name, table in (("snapshot", f"snapshot {lower} {cow} P 8"), ("mid", f"snapshot-origin {lower}")):
        call("create", name, MINE + name)
        call("load", MINE + name, input=f"0 {SECTORS} {table}")
    mid = call("prefix", MID).split()[-1]
    call("load", uuid, input=f"0 {SECTORS} linear {mid} 0")
    call("hold", uuid, SNAPSHOT, MID, input="\n")
    return node(SNAPSHOT)


@pytest.fixture
def watched(volume, snapshot):
    """The process that watches the snapshot."""
    assert not processes("tolvubd-watch")
    call("watch", volume[0], SNAPSHOT)
    watcher, = processes("tolvubd-watch")
    return watcher


@contextlib.contextmanager
def writer(path):
    """Writes and syncs continuously; yields the list of the times."""
    done, ended = [], threading.Event()

    def write():
        with open(path / "written", "wb", buffering=0) as file:
            while not ended.is_set():
                file.write(bytes(4096))
                os.fdatasync(file)
                done.append(time.monotonic())

    thread = threading.Thread(target=write)
    thread.start()
    try:
        yield done
    finally:
        ended.set()
        thread.join()


@contextlib.contextmanager
def holder(uuid):
    """A process that holds the volume until it reads a line."""
    process = subprocess.Popen([program("TolvubdDm"), "hold", uuid], stdin=subprocess.PIPE,
                               stdout=subprocess.PIPE, text=True)
    try:
        assert process.stdout.readline() == "held\n"
        yield process
    finally:
        process.kill()
        process.communicate(timeout=PATIENCE)


def test_devices_are_what_they_were_made(volume):
    lower = make("lower", call("table", volume[0]))
    assert call("table", LOWER) == call("table", volume[0])
    assert call("status", LOWER) == f"0 {SECTORS} linear \n"
    assert call("size", LOWER) == f"{SECTORS}\n"
    assert call("state", LOWER) == "active table 0\n"
    assert call("number", lower) == call("prefix", MINE) == f"lower {LOWER} {lower}\n"
    call("load", LOWER, input=f"0 {SECTORS} error")
    assert call("state", LOWER) == "active table new 0\n"
    call("clear", LOWER)
    call("suspend-only", LOWER)
    assert call("state", LOWER) == "suspended table 0\n"
    call("resume", LOWER, "hidden")
    assert call("table", LOWER) == call("table", volume[0])


def test_devices_that_are_not_there_or_taken_are_errors(volume):
    make("lower", call("table", volume[0]))
    call("create", "lower", MINE + "other", status=16)
    call("create", "other", LOWER, status=16)
    call("table", MINE + "other", status=6)
    call("load", LOWER, input="0 8 nothing", status=22)
    assert call("number", "8:200") == ""
    assert call("number", "253:1048575") == ""


def test_targets_answer_messages(volume):
    number = make("lower", call("table", volume[0]))
    store = run("dmsetup", "info", "-c", "--noheadings", "-o", "major,minor", "/dev/group/store")
    run("dd", "if=/dev/zero", "of=/dev/group/store", "bs=4096", "count=1", "oflag=direct")
    make("mid", f"0 {SECTORS} era {store} {number} 8")
    assert call("message", MID, "checkpoint") == "\n"
    assert call("message", MID, "nonsense", status=22) == ""


def test_removal_waits_for_who_has_it_open(volume):
    make("lower", call("table", volume[0]))
    with open(node(LOWER), "rb") as device:
        thread = threading.Timer(1, device.close)
        thread.start()
        call("remove", LOWER)
        thread.join()
    assert call("prefix", MINE) == ""


def test_held_volume_waits_and_goes_on(volume):
    uuid, path = volume
    with writer(path) as done, holder(uuid) as process:
        eventually(lambda: call("state", uuid).startswith("suspended"))
        time.sleep(0.1) # for writes that were under way
        before = len(done)
        time.sleep(0.5)
        assert len(done) == before
        assert process.communicate("\n", timeout=PATIENCE)[0] == "released\n"
        assert process.returncode == 0
        eventually(lambda: len(done) > before)
    assert call("state", uuid).startswith("active")


def test_memory_of_those_who_hold_a_volume_is_locked(volume):
    with holder(volume[0]) as process:
        guard, = processes("tolvubd-guard")
        assert locked_memory(process.pid) > 1000 and locked_memory(guard) > 1000


def test_volume_goes_on_when_its_holder_is_killed(volume):
    uuid, path = volume
    with writer(path) as done, holder(uuid) as process:
        process.kill()
        process.wait(timeout=PATIENCE)
        before = len(done)
        eventually(lambda: len(done) > before + 1)
    eventually(lambda: not processes("tolvubd-guard"))
    assert call("state", uuid).startswith("active")


def test_volume_that_somebody_else_holds_is_busy(volume):
    uuid, path = volume
    run("fsfreeze", "-f", path)
    try:
        call("hold", uuid, input="\n", status=16)
    finally:
        run("fsfreeze", "-u", path)
    run("dmsetup", "suspend", VOLUME)
    try:
        call("hold", uuid, input="\n", status=16)
        assert call("state", uuid).startswith("suspended")
    finally:
        run("dmsetup", "resume", VOLUME)


def test_hold_that_somebody_else_ended_is_an_error(volume):
    uuid, _ = volume
    with holder(uuid) as process:
        run("dmsetup", "resume", VOLUME)
        assert process.communicate("\n", timeout=PATIENCE)[0] == ""
        assert process.returncode == 110


def test_volume_goes_on_with_its_own_table_when_the_new_one_fails(volume):
    uuid, path = volume
    own = call("table", uuid)
    store = run("dmsetup", "info", "-c", "--noheadings", "-o", "major,minor", "/dev/group/store")
    cow = make("cow", f"0 {COW_SECTORS} linear {store} 0")
    run("dd", "if=/dev/zero", f"of={node(COW)}", "bs=4096", "count=1", "oflag=direct")
    lower = make("lower", own)
    call("load", uuid, input=f"0 {SECTORS} era {cow} {lower} 8")
    call("load", COW, input=f"0 {COW_SECTORS} error")
    call("resume", COW, "hidden")
    call("hold", uuid, input="\n")
    assert call("table", uuid) == own
    (path / "file").write_text("goes on", encoding="ascii")


def test_links_of_the_volume_never_vanish(volume, snapshot):
    uuid, _ = volume
    file_system = run("findmnt", "-no", "UUID", VOLUME)
    links = [VOLUME, pathlib.Path("/dev/mapper/group-volume"), pathlib.Path("/dev/disk/by-uuid", file_system)]
    target, wrong, ended = VOLUME.resolve(), [], threading.Event()

    def look():
        while not ended.is_set():
            wrong.extend(link for link in links if not link.is_symlink() or link.resolve() != target)

    thread = threading.Thread(target=look)
    thread.start()
    for _ in range(4):
        call("hold", uuid, input="\n")
        run("udevadm", "settle")
        call("suspend", uuid)
        call("resume", uuid, "shown")
        run("udevadm", "settle")
    ended.set()
    thread.join()
    assert not wrong


def test_layers_have_no_twin(volume, snapshot):
    run("udevadm", "trigger", "--settle", "--subsystem-match=block")
    for uuid in (LOWER, MID, SNAPSHOT):
        properties = run("udevadm", "info", "-q", "property", "-n", node(uuid)).splitlines()
        assert not [line for line in properties if line.startswith(("ID_FS_", "DEVLINKS=/dev/disk"))]
    file_system = run("findmnt", "-no", "UUID", VOLUME)
    assert pathlib.Path("/dev/disk/by-uuid", file_system).resolve() == VOLUME.resolve()


def test_snapshot_cannot_be_read_once_the_volume_bypasses_it(volume, snapshot, watched):
    uuid, _ = volume
    time.sleep(1.5) # longer than the watcher's own pause
    assert processes("tolvubd-watch") == [watched] and can_be_read(snapshot)
    run("dmsetup", "load", VOLUME, "--table", call("table", LOWER))
    assert can_be_read(snapshot)
    run("dmsetup", "resume", VOLUME)
    replaced = time.monotonic()
    eventually(lambda: not can_be_read(snapshot), seconds=0.5)
    print(f"unreadable after {(time.monotonic() - replaced) * 1e3:.0f} ms")
    assert call("status", SNAPSHOT) == f"0 {SECTORS} error \n"
    assert processes("tolvubd-watch") == []


def test_lvm_that_refreshes_the_volume_bypasses_it(snapshot, watched):
    run("lvchange", "--refresh", "group/volume")
    eventually(lambda: not can_be_read(snapshot), seconds=0.5)
    assert not processes("tolvubd-watch")


def test_snapshot_that_runs_full_cannot_be_read(volume, snapshot, watched):
    (volume[1] / "file").write_bytes(os.urandom(4 * COW_SECTORS << 9))
    os.sync()
    eventually(lambda: call("status", SNAPSHOT) == f"0 {SECTORS} error \n")
    assert not can_be_read(snapshot)
    eventually(lambda: not processes("tolvubd-watch"))


def test_watcher_ends_with_the_snapshot(volume, snapshot, watched):
    assert pathlib.Path(f"/proc/{watched}/stat").read_text(encoding="ascii").split()[3] == "1"
    call("load", MID, input=f"0 {SECTORS} linear {call('prefix', LOWER).split()[-1]} 0")
    call("hold", volume[0], MID, input="\n")
    assert processes("tolvubd-watch") == [watched]
    call("remove", SNAPSHOT)
    eventually(lambda: not processes("tolvubd-watch"), seconds=2)


def test_watcher_is_out_of_its_maker_s_group(volume, snapshot):
    script = f"cd {volume[1]}; {program('TolvubdDm')} watch {volume[0]} {SNAPSHOT}; echo started; sleep 60"
    with subprocess.Popen(["sh", "-c", script], stdout=subprocess.PIPE, start_new_session=True) as shell:
        assert shell.stdout.readline() == b"started\n"
        watcher, = processes("tolvubd-watch")
        os.killpg(shell.pid, signal.SIGHUP)
        os.killpg(shell.pid, signal.SIGTERM)
        assert shell.stdout.read() == b"" # no process has it open any more
    os.kill(watcher, signal.SIGHUP)
    assert os.readlink(f"/proc/{watcher}/cwd") == "/"
    assert processes("tolvubd-watch") == [watcher]
    os.kill(watcher, signal.SIGTERM)
    eventually(lambda: not processes("tolvubd-watch"))
