"""Differential merges: all used blocks are compared, and only those that differ are written."""
import os
import shutil

from backup_site import LONGEST, OVER_BOTH, Ledger, commands_for, fill, root_of, size_of_all, write_script
from change_records import copied_extents
from lab.backups import capture_of
from lab.driver import INFO
from lab.image_server import Writes
from lab.images import extents_of_files
from lab.targets import Target
from lab.zephane import ZephaneServer

MIB = 1 << 20
EQUALIZE = """#!/usr/bin/python3
import json, sys
images = {images}
if sys.argv[1] == "POST":
    for device in json.load(open("{status}"))["devices"]:
        with open("/dev/tolvu%d" % device["minor"], "rb") as snapshot:
            with open(images[device["block_device"]], "r+b") as image:
                while piece := snapshot.read(1 << 20):
                    image.write(piece)
"""
# The unit of writes: it is written as a whole if anything in it differs.
UNITS = {Target: LONGEST, ZephaneServer: 64 << 10}
LARGE = "large"
FLIPS = (1, 2 * MIB + 77, 17 * MIB + 4095, 18 * MIB) # offsets in this file, which stays where it is


def chunks(extents):
    """The chunks that are read and compared at once."""
    return [(at, min(LONGEST, begin + length - at)) for begin, length in extents
            for at in range(begin, begin + length, LONGEST)]


def differing(one, other, extents, unit):
    """(offset, length) of what must be repaired: the differing units of each chunk, with adjacent units
    joined."""
    with open(one, "rb") as first, open(other, "rb") as second:
        return [run for at, length in chunks(extents)
                for run in runs_of(at, os.pread(first.fileno(), length, at),
                                   os.pread(second.fileno(), length, at), unit)]


def runs_of(at, one, other, unit):
    found = []
    for begin in range(0, len(one), unit):
        piece = slice(begin, begin + unit)
        length = len(one[piece])
        if one[piece] == other[piece]:
            continue
        if found and sum(found[-1]) == at + begin:
            found[-1] = (found[-1][0], found[-1][1] + length)
        else:
            found.append((at + begin, length))
    return found


def flip(path, at):
    with open(path, "r+b") as file:
        byte = os.pread(file.fileno(), 1, at)[0]
        os.pwrite(file.fileno(), bytes([byte ^ 0xFF]), at)


def place_of(at, extents):
    """The offset on the volume of a byte of a file, by the file's extents."""
    for begin, length in extents:
        if at < length:
            return begin + at
        at -= length
    raise ValueError(f"the file ends {at} bytes before")


def fill_all(volumes):
    for name, partition in volumes.items():
        fill(root_of(partition), name)
        (root_of(partition) / LARGE).write_bytes(os.urandom(24 * MIB))


@OVER_BOTH
def test_merge_with_an_equal_image_writes_nothing(protect, volumes, target):
    """A script makes the image equal to the volume between the snapshot and the copy."""
    fill_all(volumes)
    protection = protect()
    backup = protection.run(full=True)
    assert backup.state == "finished", backup.log
    images = {volumes[name].device: str(image.path) for name, image in protection.images.items()}
    write_script("equalize", EQUALIZE.format(images=images, status=INFO))
    before = target.writes()
    backup = protection.run(volumes=protection.request(scripts=["equalize"]), merge=True)
    assert backup.state == "finished", backup.log
    assert target.writes() - before == Writes(0, 0)
    for name, partition in volumes.items():
        extents = copied_extents(capture_of(partition), partition.volume.file_system)
        assert (backup.type(name), backup.bytes(name)) == ("differential", size_of_all(extents))
    protection.verify()


@OVER_BOTH
def test_merge_mends_exactly_what_differs(protect, volumes, target, tmp_path):
    """Single bytes of the image are flipped: a merge writes the units that differ, and no others."""
    fill_all(volumes)
    protection = protect()
    with Ledger(protection) as ledger:
        ledger.run("full", full=True)
        damaged, before = {}, {}
        for name, partition in volumes.items():
            image = protection.images[name].path
            extents = extents_of_files(capture_of(partition), partition.volume.file_system, [LARGE])
            damaged[name] = [place_of(at, extents) for at in FLIPS]
            for at in damaged[name]:
                flip(image, at)
            before[name] = shutil.copyfile(image, tmp_path / name)
        for name, sent in ledger.run("differential", merge=True).items():
            capture = capture_of(volumes[name])
            written = differing(before[name], capture, sent.extents, UNITS[type(target)])
            assert sent.reported_bytes == size_of_all(sent.extents)
            assert sent.writes == Writes(commands_for(written, target), size_of_all(written))
            for at in damaged[name]:
                assert any(begin <= at < begin + length for begin, length in written)
            assert len(written) < len(chunks(sent.extents)) / 2
        for sent in ledger.run("incremental").values():
            sent.check()
