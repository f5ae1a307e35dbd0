"""The changes that the snapshot driver has to record for a volume, and the data that a backup has to send,
calculated from captures of the volume and from the used blocks that the file system's tools report."""
import os
from itertools import chain, count

from lab.driver import OWN_FILES
from lab.filesystems import kind_of
from lab.images import extents_on, tree_of, without

UNIT = 4096 # bytes in a unit; changes are recorded by unit
PIECE = 4 << 20


class CaptureExtents:
    """The file system in a capture: the extents (offset, length) in use, those of them that the driver
    doesn't know to be in use, and those of each of the driver's and the agent's own files."""

    def __init__(self, capture, file_system):
        self.capture = capture
        kind = kind_of(file_system)
        self._has_file_extents = kind.has_file_extents
        self.used = used_extents(capture, kind)
        self.unknown_to_driver = kind.unknown_to_driver(capture)
        with tree_of(str(capture), file_system) as root:
            self.own = {name: extents_on(capture, file_system, root, name) for name in OWN_FILES
                        if (root / name).exists()}

    @property
    def needed(self):
        """The extents worth copying: all in use, except the own files."""
        return list(without(self.used, chain.from_iterable(self.own.values())))

    @property
    def copied(self):
        """The extents that a backup copies."""
        return self.needed if self._has_file_extents else self.used


def used_extents(capture, kind):
    """The extents in use. If the map of this kind of file system extends beyond its last block, they include
    the rest of the volume."""
    truth = kind.truth(capture)
    if kind.map_exceeds_file_system:
        truth.blocks = os.stat(capture).st_size // truth.block_size
    return truth.used_extents()


def marked_since(before, after, file_system, closed=".tolvu"):
    """The numbers of the units that count as changed between two captures."""
    return marked_units(CaptureExtents(before, file_system), CaptureExtents(after, file_system), closed)


def copied_extents(capture, file_system):
    return CaptureExtents(capture, file_system).copied


def common(extents, others):
    """The intersection of two lists of extents, which are both in order."""
    found = []
    others = list(others)
    for begin, length in extents:
        while others and sum(others[0]) <= begin:
            others.pop(0)
        for other, other_length in others:
            if other >= begin + length:
                break
            first, end = max(begin, other), min(begin + length, other + other_length)
            found.append((first, end - first))
    return found


def in_units(extents):
    """The numbers of all units that the extents touch."""
    return {unit for begin, length in extents for unit in range(begin // UNIT, -(-(begin + length) // UNIT))}


def extents_of_units(units):
    found = []
    for at in (unit * UNIT for unit in sorted(units)):
        if found and sum(found[-1]) == at:
            found[-1] = (found[-1][0], found[-1][1] + UNIT)
        else:
            found.append((at, UNIT))
    return found


def differing_units(before, after):
    """The numbers of the units in which two captures differ."""
    with open(before, "rb") as old, open(after, "rb") as new:
        for first in count(0, PIECE // UNIT):
            one, other = old.read(PIECE), new.read(PIECE)
            assert len(one) == len(other)
            if not one:
                return
            if one != other:
                yield from (first + at // UNIT for at in range(0, len(one), UNIT)
                            if one[at:at + UNIT] != other[at:at + UNIT])


def marked_units(before, after, closed):
    """The numbers of the units that count as changed from one moment to the next: units that differ; units
    that are newly in use, as no image has them, whatever their content; and the files of the driver and the
    agent, except the CoW file that the snapshot `closed`."""
    others = chain.from_iterable(extents for name, extents in after.own.items() if name != closed)
    used = without(after.used, [*after.own[closed], *after.unknown_to_driver])
    known = list(without(before.needed, before.unknown_to_driver))
    return (in_units(others) - in_units(after.own[closed]) | in_units(without(used, known))
            | set(differing_units(before.capture, after.capture)))
