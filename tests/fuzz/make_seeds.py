#!/usr/bin/env python3
"""usage: lab/namespace tests/fuzz/make_seeds.py DIRECTORY

Makes the seeds of the parsers' corpora from real file systems: the regions that a parser reads, encoded as
SparseVolume.h describes, in a folder of DIRECTORY for each parser. Also makes those of the search for a
file."""
import pathlib
import struct
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2]))

from lab.arguments import parser_of, text_of  # noqa: E402
from lab.filesystems import KINDS  # noqa: E402
from lab.ntfs_volume import ATTRIBUTE_LIST, MFT, NtfsVolume  # noqa: E402
from lab.volume_images import age, fragment_free_space, make_image, mounted  # noqa: E402

UNIT = 64
HOLE = 1024
SECTOR = 512
ROOT = 5 # record of the root directory
INDEX_ALLOCATION = 0xA0
# Cluster size, and how many other files the directory has.
FILES = {"lone": (4096, 0), "blocks": (4096, 40), "small_clusters": (512, 60), "large_clusters": (65536, 60)}


def encode(image, regions, sector_exponent=0, buffer_units=255):
    """The header, and a record for each run of lines of the regions that are not all zeros."""
    encoded = bytearray(struct.pack("<BBHI", sector_exponent, buffer_units, 0, image.stat().st_size // 1024))
    with open(image, "rb") as file:
        for offset, length in regions:
            file.seek(offset)
            data = file.read(length)
            lines = [data[i:i + UNIT] for i in range(0, len(data), UNIT)]
            for number, line in enumerate(lines):
                if any(line):
                    encoded += struct.pack("<IB", offset // UNIT + number, 1) + line.ljust(UNIT, b"\0")
    return bytes(encoded)


def make_seed(kind, seed, work):
    """Makes a volume as `seed` describes it, and encodes what the parser reads of it."""
    image = make_image(work / "image", seed.mebibytes, seed.file_system, *seed.options)
    if seed.is_mounted:
        with mounted(image, seed.file_system, work / "mnt") as (_, directory):
            if seed.holes:
                fragment_free_space(directory / "riddled", HOLE, seed.holes)
            age(directory, 30, largest=100_000, is_plain=kind.is_plain)
    for step in seed.steps:
        step(image)
    return encode(image, kind.regions(image), seed.sector_exponent)


def directory_regions(image, numbers):
    """The regions that the search for a file reads for these records: the records and their index blocks."""
    with open(image, "rb") as file:
        volume = NtfsVolume(file)
        yield 0, SECTOR
        for number in (MFT, *numbers):
            yield from volume.places_of(number)
            record = volume.record(number)
            assert not record.attribute(ATTRIBUTE_LIST), "its other records would be missing"
            blocks = record.attribute(INDEX_ALLOCATION)
            for first, count in blocks.runs if blocks else ():
                yield first * volume.cluster_size, count * volume.cluster_size


def make_file_seed(cluster, files, work):
    """Makes a seed with the file `a\\b` among other files in its directory."""
    image = make_image(work / "image", 20, "ntfs", "--cluster-size", str(cluster))
    with mounted(image, "ntfs", work / "mnt") as (_, root):
        directory = root / "a"
        directory.mkdir()
        for number in range(files):
            (directory / f"{number % 7}_{number}").touch()
        (directory / "b").write_bytes(bytes(5 * cluster))
        numbers = [ROOT, directory.stat().st_ino, (directory / "b").stat().st_ino]
    return encode(image, directory_regions(image, numbers))


def main(target):
    with tempfile.TemporaryDirectory() as work:
        for kind in KINDS:
            (target / kind.name).mkdir(parents=True, exist_ok=True)
            for seed in kind.seeds:
                (target / kind.name / seed.name).write_bytes(make_seed(kind, seed, pathlib.Path(work)))
        (target / "ntfs_file").mkdir(parents=True, exist_ok=True)
        for name, (cluster, files) in FILES.items():
            (target / "ntfs_file" / name).write_bytes(make_file_seed(cluster, files, pathlib.Path(work)))


if __name__ == "__main__":
    parser = parser_of(__doc__)
    parser.add_argument("directory", type=pathlib.Path, metavar="DIRECTORY")
    try:
        main(parser.parse_args().directory)
    except OSError as error:
        sys.exit(f"make_seeds.py: {text_of(error)}")
