"""What the tests of whole backups share: volumes that are small and can be snapshotted."""
import hashlib
import pathlib
import random

from lab.volumes import Volume

EXT4 = Volume("data", "ext4", mebibytes=256, mount_point="/mnt/Büro und Lager")
XFS = Volume("files", "xfs", mebibytes=320, mount_point="/mnt/files")


def fill(root, seed, files=40, largest=300_000):
    """Files of all sizes, in directories, the same ones for a seed."""
    source = random.Random(seed)
    root = pathlib.Path(root)
    for number in range(files):
        path = root / f"{seed}-{number % 7}" / f"file {number}"
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(source.randbytes(source.randrange(largest)))


def digest(path):
    return hashlib.sha256(pathlib.Path(path).read_bytes()).hexdigest()
