#!/usr/bin/env python3
"""usage: tests/fuzz/make_era_seeds.py DIRECTORY

Makes the seeds of the corpus era_metadata with era_restore, in the format of EraMetadataFuzzer.cpp."""
import pathlib
import struct
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2]))

from lab.arguments import parser_of, text_of  # noqa: E402

UNIT = 64
BLOCK = 4096
DEVICE = 64 * BLOCK
SUPERBLOCK, NODE, ARRAY = 1, 2, 3
BITS_ROOT = 192
TREE_ROOT = 200
ARRAY_ROOT = 208
HELD_SNAPSHOT = 216


def restore(image, blocks, writesets, eras):
    """Metadata with `eras`, {block: era}, in the array, and with `writesets`, {era: blocks}, not yet in
    it."""
    text = f'<superblock uuid="" block_size="8" nr_blocks="{blocks}" current_era="9">\n'
    for era, written in writesets.items():
        text += f'<writeset era="{era}" nr_bits="{blocks}">\n'
        text += "".join(f'<bit block="{block}" value="true"/>\n' for block in written) + "</writeset>\n"
    text += "<era_array>\n"
    text += "".join(f'<era block="{block}" era="{era}"/>\n' for block, era in eras.items())
    xml = image.with_suffix(".xml")
    xml.write_text(text + "</era_array>\n</superblock>\n", encoding="ascii")
    image.write_bytes(bytes(DEVICE))
    subprocess.run(["era_restore", "-q", "-i", xml, "-o", image], check=True)
    return image.read_bytes()


def number(data, place, offset):
    return struct.unpack_from("<Q", data, place * BLOCK + offset)[0]


def values(data, place):
    """The offsets of a leaf's values in its block. If a value has a block number, that is at byte 0 or 4."""
    entries, room, size = struct.unpack_from("<III", data, place * BLOCK + 16)
    return [32 + room * 8 + entry * size for entry in range(entries)]


def kinds(data, superblock):
    """Finds the blocks that are reachable from the superblock. The metadata is so small that each tree has
    one node."""
    found = {superblock: SUPERBLOCK}
    arrays = [number(data, superblock, ARRAY_ROOT)]
    tree = number(data, superblock, TREE_ROOT)
    found[tree] = NODE
    arrays += [number(data, tree, offset + 4) for offset in values(data, tree)]
    for root in arrays:
        found[root] = NODE
        found.update({number(data, root, offset): ARRAY for offset in values(data, root)})
    return found


def encode(data, found, view, era):
    """Encodes a record for each line that isn't all zeros."""
    encoded = bytes([view, era])
    for place, kind in sorted(found.items()):
        for begin in range(0, BLOCK, UNIT):
            line = data[place * BLOCK + begin:][:UNIT]
            if any(line):
                encoded += struct.pack("<HB", (place * BLOCK + begin) // UNIT, kind << 6 | 1) + line
    return encoded


def hold(data):
    """Adds a metadata snapshot of the metadata, whose superblock is near the end."""
    place = DEVICE // BLOCK - 1
    held = bytearray(data)
    held[place * BLOCK:] = data[:BLOCK]
    struct.pack_into("<Q", held, HELD_SNAPSHOT, place)
    return bytes(held), kinds(held, place) | {0: SUPERBLOCK}


def write_now(data):
    """Makes the writeset of the oldest era that of the current era."""
    tree = number(data, 0, TREE_ROOT)
    offset = tree * BLOCK + values(data, tree)[0]
    current = bytearray(data)
    current[BITS_ROOT - 4:BITS_ROOT + 8] = data[offset:offset + 12]
    return bytes(current)


def main():
    parser = parser_of(__doc__)
    parser.add_argument("directory", type=pathlib.Path, metavar="DIRECTORY")
    directory = parser.parse_args().directory
    directory.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory() as work:
        image = pathlib.Path(work) / "image"
        empty = restore(image, 100, {}, {})
        sets = restore(image, 1500, {6: [0, 64], 7: [1499]}, {0: 3, 700: 4, 1400: 5})
        large = restore(image, 20000, {8: [19999]}, {10000: 2})
    (directory / "empty").write_bytes(encode(empty, kinds(empty, 0), 0, 0))
    (directory / "sets").write_bytes(encode(sets, kinds(sets, 0), 0, 5))
    (directory / "large").write_bytes(encode(large, kinds(large, 0), 0, 1))
    (directory / "held").write_bytes(encode(*hold(sets), 1, 4))
    (directory / "current").write_bytes(encode(write_now(sets), kinds(sets, 0), 0, 8))


if __name__ == "__main__":
    try:
        main()
    except (OSError, subprocess.CalledProcessError) as error:
        sys.exit(f"make_era_seeds.py: {text_of(error)}")
