"""The tools that an administrator would copy a volume with instead."""
import dataclasses
import shutil
import subprocess
import sys

from bench.copy.process import processor_seconds, timed

PACKAGES = {"qemu-img": "qemu-utils", "partclone.ext4": "partclone"}


@dataclasses.dataclass(frozen=True)
class Peer:
    """One run of a tool; the processor seconds are those of the tool and of the target."""

    name: str
    seconds: float
    written: int
    own_cpu: float
    target_cpu: float


def require_tools():
    missing = [package for tool, package in PACKAGES.items() if shutil.which(tool) is None]
    formats = subprocess.run(["qemu-img", "--help"], capture_output=True, text=True,
                             check=False).stdout if "qemu-utils" not in missing else ""
    if "iscsi" not in formats:
        missing.append("qemu-block-extra")
    if missing:
        sys.exit(f"these Debian packages are needed, too: {' '.join(missing)}")


def url_of(portal, target, image):
    """qemu's URL of a disk of a target."""
    return f"iscsi://{portal}/{target.name}/{image.lun}"


def run_qemu(testbed, device, *options, portal=None):
    """Copies the whole device to the same image: without knowledge of the file system, every byte is a used
    one."""
    testbed.settle()
    written, other = testbed.image.writes(), processor_seconds(testbed.target.pid)
    command = ["qemu-img", "convert", "-n", "-W", *options]
    url = url_of(portal or testbed.target.portal, testbed.target, testbed.image)
    _, seconds, cpu = timed([*command, "-f", "raw", "-O", "raw", device, url])
    return Peer(" ".join(command), seconds, (testbed.image.writes() - written).bytes, cpu,
                processor_seconds(testbed.target.pid) - other)


def run_partclone(testbed, device):
    """Copies the used blocks to a file on the disk that the target's image is on."""
    file = testbed.place / "partclone"
    testbed.settle()
    _, seconds, cpu = timed(["partclone.ext4", "-c", "-F", "-s", device, "-o", file, "-L", "/dev/null"])
    size = file.stat().st_size
    file.unlink()
    return Peer("partclone.ext4 -c", seconds, size, cpu, 0.0)
