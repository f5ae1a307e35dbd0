"""The view of a volume and its snapshot that others have: udev, udisks2, and programs that open it by its
links."""
import contextlib
import json
import pathlib
import threading
import time

import pytest

from dm_site import Protected, logical_volumes
from lab.commands import run
from lab.lvm import VolumeGroup
from tolvubd_site import Volume, layers, must

SECTORS = 96 * 2048
COW_MEBIBYTES = 8
UDISKS = "org.freedesktop.UDisks2"
LOOK_SECONDS = 0.001


@pytest.fixture
def volume():
    with VolumeGroup() as group, Volume("data", "ext4", SECTORS, logical_volumes(group)) as made:
        run("udevadm", "settle")
        yield made


@contextlib.contextmanager
def watched(paths):
    """Polls the paths; yields the set of those that were missing at some time."""
    missing = set()
    end = threading.Event()

    def look():
        while not end.wait(LOOK_SECONDS):
            missing.update(path for path in paths if not path.exists())
    thread = threading.Thread(target=look)
    thread.start()
    try:
        yield missing
    finally:
        end.set()
        thread.join()


def uuid_of(volume):
    return run("blkid", "-o", "value", "-s", "UUID", volume.device)


def udisks_blocks():
    """The devices that udisks2 reports: {device: UUID}."""
    found = json.loads(run("busctl", "--json=short", "call", UDISKS, "/org/freedesktop/UDisks2",
                           "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"))["data"][0]
    name = f"{UDISKS}.Block"
    blocks = [interfaces[name] for interfaces in found.values() if name in interfaces]
    return {bytes(block["Device"]["data"][:-1]).decode(): block["IdUUID"]["data"] for block in blocks}


def test_volume_has_no_twin(volume):
    """The driver's devices aren't announced, and the UUID stays the volume's."""
    uuid = uuid_of(volume)
    with Protected(volume, cow_mebibytes=COW_MEBIBYTES) as protected:
        run("udevadm", "trigger", "--settle", "--subsystem-match=block", "--action=change")
        assert pathlib.Path("/dev/disk/by-uuid", uuid).resolve() == volume.device.resolve()
        assert len(layers()) == 5
        named = {link.resolve().name for link in pathlib.Path("/dev/disk").glob("by-*/*")}
        hidden = {pathlib.Path("/dev/mapper", name).resolve().name for name in layers()}
        assert not named & hidden
        time.sleep(0.5)
        assert [device for device, found in udisks_blocks().items() if found == uuid] == \
            [str(volume.device.resolve())]
        assert run("lsblk", "-no", "MOUNTPOINT", volume.device).strip() == str(volume.mount_point)
        assert "duplicate" not in run("pvs", "-a").lower()
        protected.end()


@pytest.mark.parametrize("transitions", (10, 100))
def test_names_never_vanish(volume, transitions):
    paths = [volume.device, pathlib.Path("/dev/disk/by-uuid", uuid_of(volume)),
             pathlib.Path("/dev/mapper/lab-data")]
    with watched(paths) as missing:
        with Protected(volume, cow_mebibytes=COW_MEBIBYTES) as protected:
            for _ in range(transitions // 2):
                must("transition_incremental", 0)
                assert protected.next_record() == "set right"
            protected.end()
        run("udevadm", "settle")
    assert missing == set()
