"""The clusters of a file that bek-usedmap --file reports, compared with those of ntfscluster, and their
content."""
import json
import os
import random
import re
import subprocess

import pytest

from lab import filesystems
from lab.commands import run
from lab.loops import attached
from lab.ntfs_scatter import scatter
from lab.volume_images import make_image
from used_maps import TOOL

CLUSTER = 4096
UNICODE = os.environ | {"LC_ALL": "C.UTF-8"}
PIECES = random.Random(3).randbytes(300_000)
# "_" and "^" sort after letters on the volume, which compares capital letters, and before them in the C
# library.
LETTERS = "aBc_^~-0 üÄéñßЖж中ÿ😀"


def path_on(volume_path):
    """The path in the form that the tool takes."""
    return str(volume_path).replace("/", "\\")


def find(image, path, *options):
    """The ranges that the tool reports."""
    lines = run(TOOL, "--file", path_on(path), *options, image).splitlines()
    return [tuple(int(number) for number in line.split()) for line in lines]


def refusal(image, path):
    """The tool's reason for not reporting ranges."""
    done = subprocess.run([TOOL, "--file", path_on(path), image], capture_output=True, text=True, check=False)
    assert done.returncode == 1 and done.stdout == ""
    return done.stderr.removeprefix(f"bek-usedmap: {image}: ").removesuffix("\n")


def told_by_ntfscluster(image, path):
    """The runs of a file's content, by an independent tool."""
    dump = run("ntfscluster", "--force", "--filename", path, image, env=UNICODE)
    parts = [part.partition("0x")[0] for part in dump.split("0x80 - non-resident")[1:]] # one per record
    runs = re.findall(r"^\s+\d+\s+(-?\d+)\s+(\d+)\s*$", "".join(parts), re.MULTILINE)
    return [(int(first), int(count)) for first, count in runs if int(first) >= 0]


def content_of(image, ranges, size, cluster):
    with open(image, "rb") as file:
        return b"".join(os.pread(file.fileno(), count * cluster, first * cluster)
                        for first, count in ranges)[:size]


def names(dice, count):
    """Random names of any length, none of which differ only in case; enough of them fill several levels of an
    index."""
    found = {}
    while len(found) < count:
        name = "".join(dice.choices(LETTERS, k=dice.randrange(1, 50))).strip()
        found.setdefault(f"{name.casefold()}{dice.randrange(9)}", f"{name}{len(found)}")
    return list(found.values())


def fill_directory(directory, dice, count):
    """Creates files that are too large to be resident in their records, and deletes every third one."""
    directory.mkdir(parents=True)
    contents = {name: dice.randbytes(dice.randrange(1700, 9000)) for name in names(dice, count)}
    for name, content in contents.items():
        (directory / name).write_bytes(content)
    for name in list(contents)[::3]:
        (directory / name).unlink()
        del contents[name]
    return contents


@pytest.mark.parametrize("cluster, count", [(512, 2500), (4096, 4000), (65536, 2000)])
def test_files_of_a_large_directory(cluster, count, directory):
    """An index block of 4 KiB takes eight clusters, one cluster, or a part of one."""
    dice = random.Random(cluster)
    image = make_image(directory / "image", 400, "ntfs", "--cluster-size", str(cluster))
    with attached(image) as device, filesystems.mounted("ntfs", device, directory / "mnt", "rw") as root:
        contents = fill_directory(root / "Ümlaut" / "Deep Er", dice, count)
    for name in dice.sample(sorted(contents), 250):
        ranges = find(image, f"/ümlaut/DEEP eR/{name}")
        assert content_of(image, ranges, len(contents[name]), cluster) == contents[name], name
    for name in dice.sample(sorted(contents), 60):
        assert find(image, f"Ümlaut/Deep Er/{name}") == told_by_ntfscluster(image, f"Ümlaut/Deep Er/{name}")
    assert refusal(image, "Ümlaut/Deep Er/nobody") == "Could not find entry for file nobody"


@pytest.fixture(name="image")
def small_volume(directory):
    """A volume with files in one run, in several runs, resident in their records, and with holes."""
    image = make_image(directory / "image", 24, "ntfs", "--cluster-size", str(CLUSTER))
    with attached(image) as device, filesystems.mounted("ntfs", device, directory / "mnt", "rw") as root:
        (root / "ReadMe").write_bytes(b"r" * 5000)
        (root / "small").write_bytes(b"s" * 10)
        (root / "empty").touch()
        with open(root / "sparse", "wb") as file:
            for mebibyte in 3, 8:
                file.seek(mebibyte << 20)
                file.write(b"s" * 10_000)
        (root / "pieces").write_bytes(PIECES)
        number = (root / "pieces").stat().st_ino
    scatter(image, number, 8)
    return image


def test_file_in_pieces(image):
    ranges = find(image, "pieces")
    assert len(ranges) == 8
    assert ranges == told_by_ntfscluster(image, "pieces")
    assert content_of(image, ranges, len(PIECES), CLUSTER) == PIECES


def test_holes_are_left_out(image):
    ranges = find(image, "sparse")
    assert ranges == told_by_ntfscluster(image, "sparse")
    assert sum(count for _, count in ranges) in range(6, 12)


def test_file_is_among_the_used_blocks(image):
    used = json.loads(run(TOOL, "--json", image))["ranges"]
    for first, count in find(image, "readme"):
        assert any(start <= first and first + count <= start + length for start, length in used)


def test_files_that_lie_nowhere(image):
    for name in "small", "empty":
        assert refusal(image, name) == "Attribute is resident. Can't find data-runs."
    assert refusal(image, "/") == "Could not find data runs for file \\"
    assert refusal(image, "nobody").endswith("for file nobody")
    assert refusal(image, "readme/x") == "Could not find INDEX_ROOT for file x"
    assert refusal(image, "") == "Could not find data runs for file "


def test_json(image):
    found = json.loads(run(TOOL, "--json", "--file", "sparse", image))
    ranges = find(image, "sparse")
    assert found == {"device": str(image), "file": "sparse", "blockSize": CLUSTER,
                     "fileBlocks": sum(count for _, count in ranges), "rangeCount": len(ranges),
                     "ranges": [list(one) for one in ranges]}


def test_file_of_more_pieces_than_a_record_has_room_for(directory):
    image = make_image(directory / "image", 120, "ntfs", "--cluster-size", "512")
    with attached(image) as device, filesystems.mounted("ntfs", device, directory / "mnt", "rw") as root, \
            open(root / "sparse", "wb") as file:
        for piece in range(1500): # each after a hole
            file.seek(piece * 65536 * 2)
            file.write(b"x" * 512)
    ranges = find(image, "sparse")
    assert len(ranges) == 1500
    assert ranges == told_by_ntfscluster(image, "sparse")


def test_other_volumes(directory):
    image = make_image(directory / "image", 20, "ext4")
    assert refusal(image, "a") == "files can't be looked for on volumes of ext2, ext3, ext4"
    image.write_bytes(bytes(1 << 20))
    assert refusal(image, "a") == "the file system is of no kind that is known"


@pytest.mark.parametrize("options", [("--summary",), ("--kinds",), ("--buffer", "1")])
def test_options_that_are_about_the_map(options):
    done = subprocess.run([TOOL, "--file", "a", *options, "/dev/null"], capture_output=True, check=False)
    assert done.returncode == 2
