"""The devices that a volume can be on, and the file systems that can be on it: tracked by device-mapper,
captured, or refused; and a round of snapshots on each that isn't refused."""
import contextlib
import dataclasses
import errno
import subprocess
from collections.abc import Callable

import pytest

from dm_site import BLOCKS, Protected
from lab import filesystems
from lab.commands import run
from lab.mounts import mounted
from tolvubd_site import Volume, call, layers, states, tolvuctl

MEBIBYTES = {"xfs": 320}
USUAL_MEBIBYTES = 96
PASSPHRASE = "a pass phrase"


def made_of(*options):
    """Returns a function that makes a logical volume with these options."""
    return lambda group, name, mebibytes: group.create(name, mebibytes, *options)


def two_segments(group, name, mebibytes):
    device = group.create(name, mebibytes // 2, group.physical[1])
    run("lvextend", "-L", f"{mebibytes}m", f"{group.name}/{name}", group.physical[0])
    return device


def thin(group, name, mebibytes):
    run("lvcreate", "-y", "--type", "thin-pool", "-n", "pool", "-L", f"{mebibytes + 32}m", group.name)
    run("lvcreate", "-y", "-n", name, "-V", f"{mebibytes}m", "--thinpool", "pool", group.name)
    return group.device(name)


def origin(group, name, mebibytes):
    device = group.create(name, mebibytes)
    run("lvcreate", "-y", "-s", "-n", "old", "-L", "32m", f"{group.name}/{name}")
    return device


def encrypted(device, name):
    run("cryptsetup", "luksFormat", "--batch-mode", "--pbkdf", "pbkdf2", "--pbkdf-force-iterations", "1000",
        device, input=PASSPHRASE)
    run("cryptsetup", "open", device, name, input=PASSPHRASE)
    return f"/dev/mapper/{name}"


def on_encrypted(group, name, mebibytes):
    below = encrypted(group.spare, "below")
    run("vgcreate", "secret", below)
    run("lvcreate", "-y", "-n", name, "-L", f"{mebibytes}m", "secret")
    return f"/dev/secret/{name}"


def encrypted_above(group, name, mebibytes):
    return encrypted(group.create(name, mebibytes), "above")


def linear_device(group, name, mebibytes):
    """A linear device, as for a partition that was adopted at boot."""
    run("dmsetup", "create", name, "--uuid", "ADOPTED-data", "--table",
        f"0 {mebibytes * 2048} linear {group.spare} 0")
    return f"/dev/mapper/{name}"


def partition(group, _name, mebibytes):
    run("sfdisk", "--quiet", group.spare, input=f",{mebibytes}M\n")
    run("udevadm", "settle")
    return f"{group.spare}1"


@dataclasses.dataclass(frozen=True)
class Kind:
    """`make(group, name, mebibytes)` makes the device. `served_by` is "device-mapper" or "capture". `reason`
    is a word of the reason that the operator sees."""

    name: str
    make: Callable
    served_by: str = "device-mapper"
    reason: str = ""
    filesystem: str = "ext4"
    options: tuple = ()


KINDS = (
    Kind("linear", made_of()),
    Kind("two segments", two_segments),
    Kind("linear device", linear_device),
    Kind("PV on LUKS", on_encrypted),
    Kind("XFS", made_of(), filesystem="xfs"),
    Kind("ext2", made_of(), "capture", "ext2", filesystem="ext2"),
    Kind("ext3", made_of(), "capture", "ext3", filesystem="ext3"),
    Kind("striped", made_of("-i", "2"), "capture", "striped"),
    Kind("thin", thin, "capture", "thin"),
    Kind("raid1", made_of("--type", "raid1", "-m", "1"), "capture", "raid"),
    Kind("LVM snapshot's origin", origin, "capture", "snapshot-origin"),
    Kind("LUKS on LV", encrypted_above, "capture", "crypt"),
    Kind("partition", partition, "capture", "device-mapper"),
    Kind("blocks of 1 KiB", made_of(), "capture", "", options=("-b", "1024")),
)


def place_of(kind, group):
    @contextlib.contextmanager
    def place(name, filesystem, sectors):
        device = kind.make(group, name, sectors // 2048)
        filesystems.make(filesystem, device, *(kind.options or BLOCKS.get(filesystem, ())))
        yield device
    return place


@pytest.fixture
def make_volume(group):
    with contextlib.ExitStack() as stack:
        stack.callback(remove, group)

        def make(kind):
            sectors = MEBIBYTES.get(kind.filesystem, USUAL_MEBIBYTES) * 2048
            return stack.enter_context(Volume("data", kind.filesystem, sectors, place_of(kind, group)))
        yield make


def remove(group):
    """Removes everything that was made of the group, from top to bottom."""
    for command in (("cryptsetup", "close", "above"), ("vgremove", "-ff", "-y", "secret"),
                    ("cryptsetup", "close", "below"), ("dmsetup", "remove", "--retry", "data"),
                    ("lvremove", "-ff", "-y", group.name), ("wipefs", "--quiet", "--all", group.spare)):
        subprocess.run(command, capture_output=True, check=False, timeout=60)


def listed(device):
    """The operator's view of a device of the driver."""
    return next(line for line in tolvuctl("list").stdout.splitlines() if str(device) in line)


@pytest.mark.parametrize("kind", KINDS, ids=lambda kind: kind.name)
def test_kind(make_volume, kind, record_property):
    volume = make_volume(kind)
    with Protected(volume) as protected:
        assert bool(layers()) == (kind.served_by == "device-mapper")
        line = listed(volume.device)
        assert kind.served_by in line
        assert kind.reason in line
        protected.track()
        outcome = protected.next_record()
        assert outcome == "set right"
        record_property("verb", f"{kind.name} | | {kind.served_by} | {outcome} | {protected.changed} | "
                                f"{protected.untouched}")
        protected.end()


def test_file_system_that_the_kernel_does_not_freeze(group, tmp_path, record_property):
    """Neither way of tracking supports it, and nothing is left on it."""
    device = group.create("data", USUAL_MEBIBYTES)
    filesystems.make("vfat", device)
    try:
        with mounted(device, tmp_path, "defaults", "vfat"):
            refused = call("setup_snapshot", 0, device, tmp_path / ".tolvu", 24)
            assert (refused.value, refused.error) == (-1, errno.EOPNOTSUPP)
            assert (list(tmp_path.iterdir()), layers(), states()) == ([], [], {})
    finally:
        remove(group)
    record_property("verb", "vfat | | refused (EOPNOTSUPP) | ")
