"""Whole backups to images on a Ceph cluster, over the second transport."""
import dataclasses
import os

import pytest

from backup_site import EXT4, XFS, check, check_chain, fill, fill_some, root_of
from lab.backups import size_of
from lab.rbd import RbdServer
from zephane_site import KINDS, fragment, free_extents, watched_wire

MIB = 1 << 20
VOLUMES = (dataclasses.replace(EXT4, making=("-b", "4096")), XFS) # a machine's disk has no smaller holes
NAMES = ("data", "files")
ORGANIZATION = MIB # upper limit of what a disk holds besides the objects' own data
LARGE = 24 * MIB


@pytest.fixture
def target(cluster):
    with RbdServer(cluster) as running:
        yield running


@pytest.mark.parametrize("name", NAMES)
def test_all_types(protect, volumes, name):
    check_chain(protect(name), volumes)


def test_two_volumes_in_one_backup(protect, volumes):
    check_chain(protect(*NAMES), volumes)


@pytest.mark.parametrize("name", NAMES)
def test_free_space_takes_no_room(cluster, protect, volumes, punching, name):
    """No machine stores the free space of an image that was full of poison, after any type of backup."""
    volume = volumes[name]
    fragment(volume)
    before = min(room(cluster))
    protection = protect(name)
    for kind in KINDS:
        fill_some(volumes, [name], f"{kind}")
        backup = protection.run(**kind)
        assert backup.state == "finished", backup.log
        protection.verify()
        free = free_extents(volume)
        used = size_of(volume) - sum(length for _, length in free)
        assert max(room(cluster)) - before <= used + ORGANIZATION < size_of(volume)
        check_zero(protection.images[name].path, free)


def room(cluster):
    """The space used on the disk of each machine."""
    return [osd.allocated() for osd in cluster.osds]


def check_zero(path, extents):
    with open(path, "rb") as file:
        for begin, length in extents:
            file.seek(begin)
            assert file.read(length) == bytes(length)


def test_what_is_equal_stays_off_the_wire(protect, volumes):
    """Equal data isn't sent in either direction: all connections see the same data, so it can be compared."""
    (root_of(volumes["data"]) / "large").write_bytes(os.urandom(LARGE))
    protection = protect("data")
    check(protection, protection.run(full=True), "full")
    fill(root_of(volumes["data"]), "little", files=1)
    with watched_wire() as wire:
        check(protection, protection.run(merge=True), "differential")
        assert wire.sent() + wire.answered() < LARGE // 16
