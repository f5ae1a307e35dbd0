"""The lab's Ceph cluster and the NBD server for its images: the properties that backups to it rely on."""
import contextlib
import json
import subprocess

import pytest

from lab.ceph import RbdExport
from lab.commands import run

MIB = 1 << 20
SIZE = 128 * MIB
HOLE, HOLE_LENGTH = 5 * MIB, 70 * MIB # begins and ends inside an object
ORGANIZATION = MIB # upper limit of what a disk holds besides the objects' own data
SECONDS, SECONDS_AWAY = 60, 5


@pytest.fixture
def export(cluster):
    """A new image of random bytes."""
    cluster.create_image("disk", SIZE)
    with RbdExport(cluster, "disk") as running:
        yield running
    cluster.rbd("remove", "disk")


@pytest.fixture
def source(tmp_path):
    path = tmp_path / "source"
    with open("/dev/urandom", "rb") as random:
        path.write_bytes(random.read(SIZE))
    return path


@contextlib.contextmanager
def copying(source, export):
    with subprocess.Popen(["nbdcopy", "--flush", source, export.uri]) as copy:
        try:
            yield copy
        finally:
            copy.kill()


def check_equal(cluster, source, tmp_path):
    copy = tmp_path / "copy"
    cluster.rbd("export", "disk", copy)
    assert copy.read_bytes() == source.read_bytes()
    copy.unlink()


def allocated(cluster):
    return [osd.allocated() for osd in cluster.osds]


def test_each_machine_holds_the_image_and_a_hole_takes_no_room(cluster, export, source, tmp_path):
    """All connections of the NBD server see the same data, and requests may be of any small size."""
    [told] = json.loads(run("nbdinfo", "--json", export.uri))["exports"]
    assert (told["export-size"], told["can_multi_conn"], told["can_zero"], told["block_size_minimum"]) \
        == (SIZE, True, True, 1)
    before = allocated(cluster)
    run("nbdcopy", "--flush", source, export.uri)
    full = allocated(cluster)
    assert all(SIZE <= now - then < SIZE + ORGANIZATION for now, then in zip(full, before))
    run("qemu-io", "--format=raw", "-c", f"write -z -u {HOLE} {HOLE_LENGTH}", "-c", "flush", export.uri)
    assert all(abs(then - now - HOLE_LENGTH) < ORGANIZATION for now, then in zip(allocated(cluster), full))
    with open(source, "r+b") as file:
        file.seek(HOLE)
        file.write(bytes(HOLE_LENGTH))
    check_equal(cluster, source, tmp_path)


def test_one_machine_may_be_missing(cluster, export, source, tmp_path):
    """The machine catches up with the others, and can then replace one of them."""
    with cluster.without(0):
        assert cluster.up() == {1, 2}
        run("nbdcopy", "--flush", source, export.uri)
    with cluster.without(1):
        check_equal(cluster, source, tmp_path)


def test_with_two_missing_all_wait(cluster, export, source, tmp_path):
    with cluster.without(0), contextlib.ExitStack() as second:
        second.enter_context(cluster.without(1))
        with copying(source, export) as copy:
            with pytest.raises(subprocess.TimeoutExpired):
                copy.wait(SECONDS_AWAY)
            second.close()
            assert copy.wait(SECONDS) == 0
    check_equal(cluster, source, tmp_path)
