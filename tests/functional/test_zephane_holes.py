"""Holes in the image, over the second transport: exactly where the source is free."""
import dataclasses
import os

import pytest

from backup_site import EXT4, XFS, check, check_chain, digest, fill_some
from change_records import common, copied_extents
from lab.backups import capture_of, size_of
from lab.poison import is_poison
from lab.zephane import ZephaneServer
from zephane_site import fragment, free_extents

MIB = 1 << 20
SERVER = ZephaneServer
PAGE = 4096 # a file in memory has no smaller holes
VOLUMES = (dataclasses.replace(EXT4, making=("-b", str(PAGE))), XFS)


@pytest.fixture
def punched(punching, volumes):
    """Volumes with fragmented free space, and an agent that punches holes for it."""
    for partition in volumes.values():
        fragment(partition)
    return volumes


def merged(extents):
    """(offset, length) in order, with adjacent extents joined."""
    found = []
    for begin, length in sorted(extents):
        if found and sum(found[-1]) == begin:
            found[-1] = (found[-1][0], found[-1][1] + length)
        else:
            found.append((begin, length))
    return found


def holes_of(path):
    """(offset, length) of the holes in a file."""
    with open(path, "rb") as file:
        return list(holes_in(file.fileno(), os.fstat(file.fileno()).st_size))


def holes_in(descriptor, size):
    at = 0
    while at < size and (begin := os.lseek(descriptor, at, os.SEEK_HOLE)) < size:
        try:
            at = os.lseek(descriptor, begin, os.SEEK_DATA)
        except OSError: # no data follows
            at = size
        yield begin, at - begin


def check_holes(image, *expected):
    """Checks that the holes of the image are exactly the extents in `expected`."""
    assert holes_of(image.path) == merged(extent for extents in expected for extent in extents)


def test_free_space_of_a_full_takes_no_room(protect, punched):
    """The image was full of poison."""
    protection = protect()
    check(protection, protection.run(full=True), "full")
    for name, image in protection.images.items():
        check_holes(image, free_extents(punched[name]))
        assert image.holes().commands > 1


def test_free_space_of_later_backups_takes_no_room(protect, punched):
    """Holes of earlier backups stay where the agent's own files have come into use, as those aren't
    copied."""
    protection = protect()
    for kind, asked in (("full", {"full": True}), ("incremental", {}), ("differential", {"merge": True})):
        fill_some(punched, protection.partitions, kind)
        check(protection, protection.run(**asked), kind)
        for name, image in protection.images.items():
            partition = punched[name]
            holes, free = holes_of(image.path), merged(free_extents(partition))
            assert common(free, holes) == free
            assert common(copied_extents(capture_of(partition), partition.volume.file_system), holes) == []


def shifted(extents, offset):
    return [(begin + offset, length) for begin, length in extents]


def poison_of(image, begin, end):
    with open(image.path, "rb") as file:
        return is_poison(os.pread(file.fileno(), end - begin, begin))


def test_two_volumes_in_one_image(protect, punched, target):
    """One volume follows the other; the poison before, between and after them stays unchanged."""
    data, files = punched["data"], punched["files"]
    second = 16 * MIB + size_of(data) + 16 * MIB
    end = second + size_of(files)
    image = target.add_image("both", end + 16 * MIB)
    one, other = protect("data", offset=16 * MIB, image=image), protect("files", offset=second, image=image)
    backup = one.start(volumes=[*one.request(), *other.request()], full=True).wait()
    assert backup.state == "finished", backup.log
    for protection in (one, other):
        protection.verify()
    check_holes(image, shifted(free_extents(data), 16 * MIB), shifted(free_extents(files), second))
    for begin, length in ((0, 16 * MIB), (second - 16 * MIB, 16 * MIB), (end, 16 * MIB)):
        assert poison_of(image, begin, begin + length)


def test_neighbour_in_the_image_stays_as_it_is(protect, punched, target, directory):
    """The neighbour doesn't change, whatever is backed up, punched and compared beside it."""
    data, files = punched["data"], punched["files"]
    image = target.add_image("both", size_of(data) + size_of(files))
    one, other = protect("data", image=image), protect("files", offset=size_of(data), image=image)
    assert other.run(full=True).state == "finished"
    before = neighbour(image, size_of(data), directory)
    check_chain(one, punched)
    assert neighbour(image, size_of(data), directory) == before


def neighbour(image, begin, directory):
    """A digest of the data after an offset, and the holes there."""
    copy = directory / "copy"
    with open(image.path, "rb") as source, open(copy, "wb") as file:
        source.seek(begin)
        while piece := source.read(4 * MIB):
            file.write(piece)
    return digest(copy), [hole for hole in holes_of(image.path) if hole[0] >= begin]
