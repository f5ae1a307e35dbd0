"""What the snapshot driver has to record of a volume, and what a backup has to bring, worked out from
captures of the volume and from what the tools of its file system call in use."""
import itertools

from lab.images import OWN_FILES, extents_of_files, without
from lab.used_blocks import truth_of, unmapped_extents

UNIT = 4096 # changes are recorded in units of so many bytes
PIECE = 4 << 20


def copied_extents(capture, file_system):
    """(offset, length) of what is worth copying of a volume: what is in use, but for the driver's and the
    agent's own files."""
    left_out = [*extents_of_files(capture, file_system, OWN_FILES), *unmapped_extents(capture, file_system)]
    return list(without(truth_of(capture, file_system).used_extents(), left_out))


def common(extents, others):
    """What is in both; either is in order."""
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
    """The numbers of all units that are touched."""
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
        for first in itertools.count(0, PIECE // UNIT):
            one, other = old.read(PIECE), new.read(PIECE)
            assert len(one) == len(other)
            if not one:
                return
            if one != other:
                yield from (first + at // UNIT for at in range(0, len(one), UNIT)
                            if one[at:at + UNIT] != other[at:at + UNIT])


def marked_units(before, after, file_system, closed, copied=None):
    """The numbers of the units that count as changed from one capture to the next: what differs, what has
    come into use and so isn't in any image whatever it holds, and the files of the driver and the agent, but
    for the one that was `closed` by the snapshot. `copied` is what was worth copying before, if known."""
    other_files = [name for name in OWN_FILES if name != closed]
    closed_extents = extents_of_files(after, file_system, [closed])
    used = without(truth_of(after, file_system).used_extents(),
                   [*closed_extents, *unmapped_extents(after, file_system)])
    return (in_units(extents_of_files(after, file_system, other_files)) - in_units(closed_extents)
            | in_units(without(used, copied or copied_extents(before, file_system)))
            | set(differing_units(before, after)))
