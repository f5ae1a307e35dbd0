"""A disk with a volatile cache: after a cut it has all flushed data, and any part of the rest."""
import random
import re
import struct
import subprocess

import pytest

from lab.commands import run
from lab.virtual.write_log import MAGIC, LogError, Replay, WriteLog, end_record, mark, record

DISKS = (64 << 20, 1 << 30)
STATES = 12
pytestmark = pytest.mark.nightly


@pytest.fixture(scope="module")
def log(machine):
    """The log of an ext4 on which "first" was synced, then "second", while much more was written."""
    device = record(machine, *machine.disks)
    machine.run(f"mkfs.ext4 -q {device} && mount {device} /mnt")
    for name in ("first", "second"):
        machine.run(f"cp -r /etc /mnt/{name}-noise & echo {name} > /mnt/{name} && sync /mnt/{name}; wait")
        mark(machine, name)
    machine.run("cp -r /etc /mnt/rest && sync && umount /mnt")
    end_record(machine)
    machine.stop()
    with WriteLog(machine.disks[1].path) as opened:
        yield opened


@pytest.fixture
def replay(log, tmp_path):
    """The replay for a disk that is empty at first."""
    path = tmp_path / "disk.img"
    with open(path, "wb") as disk:
        disk.truncate(DISKS[0])
    return Replay(log, path)


def files_of(image):
    """The files in the root directory after journal recovery, by name."""
    assert subprocess.run(["e2fsck", "-p", image], capture_output=True, check=False).returncode in (0, 1)
    listed = run("debugfs", "-R", "ls -p /", image)
    names = set(re.findall(r"^/\d+/\d+/\d+/\d+/([^/]+)/", listed, re.MULTILINE))
    return {name: run("debugfs", "-R", f"cat /{name}", image) for name in names & {"first", "second"}}


def test_the_whole_log_makes_the_disk_as_it_is(log, replay, machine):
    replay.advance(len(log.entries))
    assert replay.path.read_bytes() == machine.disks[0].path.read_bytes()


def test_what_was_synced_is_in_each_state_that_a_cut_can_leave(log, replay, tmp_path):
    chance = random.Random(1)
    state = tmp_path / "state.img"
    synced = {name: log.position_of(name) for name in ("first", "second")}
    later = [position for position in log.durable_positions() if position >= synced["first"]]
    for position in sorted(chance.sample(later, STATES)):
        replay.advance(position)
        replay.copy_with_some_writes(state, chance)
        files = files_of(state)
        assert files["first"] == "first"
        assert position < synced["second"] or files["second"] == "second"


def test_a_disk_before_the_sync_lacks_the_file(log, replay):
    synced = log.position_of("first")
    replay.advance(next(position for position in log.durable_positions() if position > synced))
    assert "second" not in files_of(replay.path)


def test_states_of_one_moment_differ(log, replay, tmp_path):
    gaps = zip(log.durable_positions(), log.durable_positions()[1:])
    replay.advance(max(gaps, key=lambda gap: gap[1] - gap[0])[0])
    states = []
    for seed in (1, 2):
        replay.copy_with_some_writes(tmp_path / "state.img", random.Random(seed))
        states.append((tmp_path / "state.img").read_bytes())
    assert states[0] != states[1]


def damaged(version=1, count=1, entry=(0, 0, 0, 0)):
    """A log with one entry, which may be damaged."""
    blocks = struct.pack("<QQQI", MAGIC, version, count, 512), struct.pack("<QQQQ", *entry)
    return b"".join(block.ljust(512, b"\0") for block in blocks)


@pytest.mark.parametrize("content", [
    b"", bytes(4096), damaged(version=2), damaged(count=1 << 60), damaged(entry=(0, 1 << 50, 0, 0)),
    damaged(entry=(0, 0, 8, 1 << 50)),
], ids=["empty", "zeros", "version", "count", "length", "mark"])
def test_a_damaged_log_is_refused(content, tmp_path):
    (tmp_path / "log").write_bytes(content)
    with pytest.raises(LogError):
        WriteLog(tmp_path / "log")
