"""The stand-in snapshot driver on FUSE volumes: it stops their process while that is idle."""
import contextlib
import errno
import os
import pathlib
import re
import signal
import subprocess
import threading
import time

import pytest

from change_records import differing_units, in_units
from lab.commands import run
from lab.daemon import program
from lab.driver import STORE, forget_devices, nodes, restart, stored_state
from lab.filesystems import truth_of
from lab.services import wait_until
from served import SLOW, Load, Served, is_stopped, server_of, state_of, wait_until_stopped
from snapshot_site import check_writable
from tolvubd_site import (Cow, SNAPSHOT, Volume, call, cow_files, must, started_driver, states, stored,
                          tolvuctl)

SECTORS = 48 * 2048
ROUNDS = 10
LONGEST_MILLISECONDS = 10_000 # even on a busy machine
TRACE = pathlib.Path("/tmp/served.trace")


@pytest.fixture(autouse=True)
def fresh_driver(site):
    with started_driver():
        yield
        forget_devices()
        assert tolvuctl("cleanup").returncode == 0


@contextlib.contextmanager
def going_on(server):
    """Makes the FUSE process continue at the end, whatever the test's outcome: otherwise the volume couldn't
    be unmounted."""
    try:
        yield server
    finally:
        with contextlib.suppress(ProcessLookupError):
            os.kill(server, signal.SIGCONT)


@pytest.fixture
def volume(fresh_driver):
    with Volume("volume", "ntfs", SECTORS) as made:
        with going_on(server_of(made.device)):
            yield made
            forget_devices()


@pytest.fixture
def server(volume):
    return server_of(volume.device)


def check_consistent(capture):
    """Checks that each cluster is in use if and only if it belongs to a file."""
    done = subprocess.run(["ntfsresize", "--info", "--force", "--no-progress-bar", capture],
                          capture_output=True, text=True, check=False, timeout=60)
    assert done.returncode == 0 and "ERROR" not in done.stdout + done.stderr, done.stdout + done.stderr


def held_milliseconds(system_log):
    return [int(found[1]) for message in system_log.messages
            if (found := re.search(r"was frozen for (\d+) ms", message["text"]))]


def test_captures_under_load_are_consistent(volume, server, system_log):
    """No capture shows half of a change. The driver doesn't access the mount meanwhile: that would hang."""
    cows = [volume.cow, volume.other_cow]
    with Load(volume.mount_point / "d") as load:
        for number in range(ROUNDS):
            if number:
                must("transition_incremental", 0)
                must("transition_snapshot", 0, cows[number % 2], 1)
            else:
                must("setup_snapshot", 0, volume.device, cows[0], 1)
            assert not is_stopped(server)
            load.wait_for_more()
            check_consistent(*STORE.glob("*.img"))
            assert len(held_milliseconds(system_log)) == number + 1
    held = held_milliseconds(system_log)
    assert max(held) < LONGEST_MILLISECONDS, held


def used_units(capture):
    """The numbers of the used units, by the file system's own tool."""
    return in_units(truth_of(capture, "ntfs").used_extents())


def units_of(capture, name):
    """The numbers of a file's units, by the file system's own tool."""
    shown = run("ntfsinfo", "--force", "--verbose", "--file", name, capture)
    rows = re.findall(r"^\s+0x[\da-f]+\s+0x([\da-f]+)\s+0x([\da-f]+)$", shown, re.MULTILINE)
    runs = [(int(first, 16), int(count, 16)) for first, count in rows]
    return {unit for first, count in runs for unit in range(first, first + count)}


def test_table_marks_what_has_changed_or_come_into_use(volume, tmp_path):
    """A unit that has come into use counts as changed, whatever its content; other unchanged units don't."""
    volume.write("one", os.urandom(300_000))
    must("setup_snapshot", 0, volume.device, volume.cow, 1)
    before = tmp_path / "before"
    before.write_bytes(next(STORE.glob("*.img")).read_bytes())
    must("transition_incremental", 0)
    volume.write("two", os.urandom(200_000))
    volume.write("zeros", bytes(1 << 20))
    must("transition_snapshot", 0, volume.other_cow, 1)
    after = next(STORE.glob("*.img"))
    differing = set(differing_units(before, after))
    closed = units_of(after, ".tolvu")
    copied = used_units(before) - units_of(before, ".tolvu")
    fresh = used_units(after) - copied - closed | units_of(after, ".tolvu1")
    assert len(closed) == len(units_of(after, ".tolvu1")) == 256
    assert units_of(after, "zeros") <= fresh - differing
    assert set(Cow(volume.cow, volume).changed_units) == differing | fresh


def delayed(seconds, *arguments):
    """A call of the driver that stops for a while once it holds the volume."""
    return subprocess.Popen(["strace", "-o", TRACE, "-e", "trace=sendto", "-e",
                             f"inject=sendto:delay_enter={seconds * 1_000_000}:when=1",
                             program("TolvubdCall"), *map(str, arguments)],
                            stdout=subprocess.PIPE, text=True, start_new_session=True)


def children_of(process):
    return [int(word) for word in
            pathlib.Path(f"/proc/{process}/task/{process}/children").read_text(encoding="ascii").split()]


def caller_of(tracer):
    """The process that strace has started."""
    return wait_until(lambda: children_of(tracer.pid), 20, "the caller")[0]


def wait_until_gone(process):
    """Waits for the end of the process, which may still hold the driver's lock; a reader of the status
    doesn't wait for that."""
    def is_gone():
        try:
            return state_of(process) == "Z"
        except OSError:
            return True
    wait_until(is_gone, 20, f"the end of process {process}")


def snapshot_of(volume):
    return "setup_snapshot", 0, volume.device, volume.cow, 1


def test_killed_caller_lets_the_volume_go_at_once(volume, server):
    """The volume is released long before the guard's timeout."""
    with delayed(60, *snapshot_of(volume)) as tracer:
        wait_until_stopped(server)
        caller = caller_of(tracer)
        os.kill(caller, signal.SIGKILL)
        tracer.kill()
        wait_until(lambda: not is_stopped(server), 3, "the server going on")
    wait_until_gone(caller)
    check_writable(volume.mount_point)
    must("start")
    assert (states(), nodes(), stored(), cow_files(volume)) == ({}, [], [], [])


def test_caller_without_progress_lets_the_volume_go(volume, server):
    with delayed(12, *snapshot_of(volume)) as tracer:
        wait_until_stopped(server)
        wait_until(lambda: not is_stopped(server), 11, "the server going on")
        assert tracer.poll() is None
        check_writable(volume.mount_point)
        assert tracer.communicate(timeout=20)[0].split() == ["-1", str(errno.ETIMEDOUT)]
    assert (states(), nodes(), stored()) == ({}, [], [])


def test_next_turn_lets_go_what_was_left_stopped(volume, server):
    """The caller and its guard were killed at once; only the same process is continued."""
    with delayed(60, *snapshot_of(volume)) as tracer:
        wait_until_stopped(server)
        caller = caller_of(tracer)
        guards = children_of(caller)
        assert len(guards) == 1
        for process in (*guards, caller):
            os.kill(process, signal.SIGKILL)
        tracer.kill()
    wait_until_gone(caller)
    assert is_stopped(server)
    [unfinished] = stored_state()["unfinished"]
    assert unfinished["server"] == server
    must("start")
    assert not is_stopped(server)
    check_writable(volume.mount_point)
    assert (states(), nodes(), stored(), cow_files(volume)) == ({}, [], [], [])


def test_who_goes_on_in_between_spoils_the_capture(volume, server):
    """Another process sends SIGCONT while the volume is read."""
    with delayed(2, *snapshot_of(volume)) as tracer:
        wait_until_stopped(server)
        os.kill(server, signal.SIGCONT)
        assert tracer.communicate(timeout=20)[0].split() == ["-1", str(errno.ETIMEDOUT)]
    assert (states(), nodes(), stored()) == ({}, [], [])


def test_server_stopped_by_somebody_else_is_left_so(volume, server):
    """Every operation that would have to access the mount fails at once."""
    must(*snapshot_of(volume))
    must("transition_incremental", 0)
    os.kill(server, signal.SIGSTOP)
    wait_until_stopped(server)
    for arguments in (("setup_snapshot", 1, volume.device, volume.other_cow, 1),
                      ("transition_snapshot", 0, volume.other_cow, 1), ("destroy", 0)):
        begin = time.monotonic()
        assert call(*arguments).error == errno.EBUSY
        assert time.monotonic() - begin < 5
    assert is_stopped(server)
    os.kill(server, signal.SIGCONT)
    must("transition_snapshot", 0, volume.other_cow, 1)
    assert states() == {0: SNAPSHOT}


@pytest.fixture
def serve(volume):
    """serve(ARGUMENT...) mounts the device with a process of our own, and returns that."""
    with contextlib.ExitStack() as stack:
        volume.unmount()
        stack.callback(volume.mount)

        def start(*arguments):
            stack.enter_context(Served(volume.device, volume.mount_point, *arguments))
            number = server_of(volume.device)
            stack.enter_context(going_on(number))
            return number
        yield start


def test_server_that_is_never_idle_is_not_held(volume, serve):
    """One thread is always in the middle of a request, while the others wait for one."""
    server = serve("--threads")
    with open(volume.mount_point / "slow", "rb") as file:
        reader = threading.Thread(target=file.read)
        reader.start()
        wait_until(SLOW.exists, 20, "a request")
        begin = time.monotonic()
        result = call(*snapshot_of(volume))
        lasted = time.monotonic() - begin
        SLOW.unlink()
        reader.join()
    assert (result.value, result.error) == (-1, errno.ETIMEDOUT)
    assert lasted >= 5
    assert not is_stopped(server)
    check_writable(volume.mount_point)


@pytest.mark.parametrize("options", [(), ("--threads",)])
def test_server_with_any_number_of_threads_is_held(volume, serve, options):
    server = serve(*options)
    must(*snapshot_of(volume))
    assert not is_stopped(server)
    assert volume.cow.stat().st_size == 1 << 20


def test_caller_that_its_own_file_system_waits_for_is_refused(volume, serve):
    """Otherwise the caller could wait for itself."""
    serve("env", f"BEKD_BUILD={os.environ['BEKD_BUILD']}", program("TolvubdCall"), *snapshot_of(volume))
    answer = (volume.mount_point / "answer").read_text(encoding="ascii").split()
    assert answer == ["-1", str(errno.EDEADLK)]


def test_setup_replaces_a_cow_file_of_nobody(volume):
    """The driver doesn't check whether such a volume is frozen, as the kernel can't freeze it."""
    must("setup_snapshot", 0, volume.device, volume.cow, 4)
    restart() # afterwards nobody gives the device back
    assert (states(), cow_files(volume)) == ({}, [".tolvu"])
    must("setup_snapshot", 0, volume.device, volume.cow, 4)
    assert states() == {0: SNAPSHOT}


def test_two_servers_are_not_held(volume, server):
    """Whichever process serves the file system, the other may also write."""
    with open(volume.device, "rb") as device, open("/dev/fuse", "r+b", buffering=0) as channel:
        other = subprocess.Popen(["sleep", "60"], stdin=device, stdout=channel)
    try:
        assert call(*snapshot_of(volume)).error == errno.EOPNOTSUPP
    finally:
        other.kill()
        other.wait()
    assert not is_stopped(server)
    must(*snapshot_of(volume))
