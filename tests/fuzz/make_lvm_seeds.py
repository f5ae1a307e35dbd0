#!/usr/bin/env python3
"""usage: tests/fuzz/make_lvm_seeds.py DIRECTORY

Makes the seeds of the corpus lvm_metadata: a label and a metadata area around each of LVM's metadata texts
beside the unit tests. There are two seeds of each: one in which the text begins at the area's start, one in
which it wraps around the area's end. The fuzz target corrects the checksums."""
import pathlib
import re
import struct
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2]))

from lab.arguments import existing_directory, parser_of, text_of  # noqa: E402

TEXTS = pathlib.Path(__file__).resolve().parents[1] / "unit/platform/tolvubd/lvm"
SECTOR = 512
AREA = 4096
DATA = 1 << 20
MAGIC = b" LVM2 x[5A%r0N*>"


def label(uuid, area_size):
    places = struct.pack("<8Q", DATA, 0, 0, 0, AREA, area_size, 0, 0)
    head = struct.pack("<8sQII8s32sQ", b"LABELONE", 1, 0, 32, b"LVM2 001", uuid, 64 << 20)
    return (head + places).ljust(SECTOR, b"\0")


def header(area_size, offset, size):
    return struct.pack("<I16sIQQQQII", 0, MAGIC, 1, AREA, area_size, offset, size, 0, 0).ljust(SECTOR, b"\0")


def seed(text, split):
    """A seed whose text begins `split` bytes before the end of the circular area."""
    volume = re.search(rb'pv0 \{\s*id = "([^"]*)"', text)[1].replace(b"-", b"")
    size = len(text) + SECTOR
    ring = text[split:] + text[:split] if split < len(text) else text
    return label(volume, size) + header(size, size - split, len(text)) + ring


def main():
    parser = parser_of(__doc__)
    parser.add_argument("directory", type=existing_directory, metavar="DIRECTORY")
    directory = parser.parse_args().directory
    for path in sorted(TEXTS.glob("*.vg")):
        text = path.read_bytes() + b"\0"
        (directory / path.stem).write_bytes(seed(text, len(text)))
        (directory / f"{path.stem}-split").write_bytes(seed(text, 3))


if __name__ == "__main__":
    try:
        main()
    except OSError as error:
        sys.exit(f"make_lvm_seeds.py: {text_of(error)}")
