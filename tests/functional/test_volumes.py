"""The volumes that the agent finds, compared with the real udisks2 and the volumes' own tools."""
import contextlib
import json
import os
import pathlib
import subprocess
import tempfile

import pytest

from lab import filesystems, volumes
from lab.commands import run
from lab.daemon import program
from lab.loops import attach, make_node
from lab.services import wait_until
from lab.volumes import Disk, Volume

SECONDS = 30
NO_SERVICE = "Cannot get object manager from udisks client. The service is probably not running"
ACTIVATION = "/usr/share/dbus-1/system-services/org.freedesktop.UDisks2.service"


def ask(*uuids):
    """Runs the program with these UUIDs, where an empty one means all volumes; returns its answers and its
    log."""
    done = subprocess.run([program("Volumes")], input="".join(f"{uuid}\n" for uuid in uuids),
                          capture_output=True, text=True, check=True, timeout=SECONDS)
    return [json.loads(line) for line in done.stdout.splitlines()], done.stderr.splitlines()


def listed():
    """All volumes, by device; they may include those of other sites of the machine."""
    [found], _ = ask("")
    return {volume["device"]: volume for volume in found}


def found(partition):
    [volume], _ = ask(partition.uuid)
    return volume


def wait_for_uuid(lab_site, device, uuid):
    wait_until(lambda: lab_site.udisks.uuid_of(device) == uuid, SECONDS, f"{device} known to udisks2")


@contextlib.contextmanager
def further_disk(lab_site, *contents, **options):
    """One more disk in the site, which udisks2 knows."""
    with Disk(contents, "further", **options) as disk:
        for partition in disk:
            wait_for_uuid(lab_site, partition.device, partition.uuid)
        yield disk


def wait_for_mounts(partition, *mount_points):
    """Waits until udisks2 has noticed a mount, which takes a moment."""
    wait_until(lambda: found(partition)["mountPoints"] == list(mount_points), SECONDS,
               f"{partition.device} at {mount_points}")


@contextlib.contextmanager
def bare_loop(lab_site, mebibytes):
    """A loop device with a file system directly on it, without a partition table."""
    with tempfile.NamedTemporaryFile(prefix=f"{volumes.IMAGE_PREFIX}bare-") as image:
        os.truncate(image.name, mebibytes << 20)
        filesystems.make("ext4", image.name)
        device = attach(image.name)
        try:
            volumes.announce(device)
            wait_for_uuid(lab_site, device, volumes.probe(device, "UUID"))
            yield volumes.Partition(Volume("bare", "ext4"), device)
        finally:
            run("losetup", "--detach", device)


def of_device(option, device):
    return int(run("blockdev", option, device))


@pytest.mark.parametrize("name", ["data", "files", "windows"])
def test_mounted_volume(lab_site, name):
    partition = lab_site.disk[name]
    size = of_device("--getsize64", partition.device)
    sector = of_device("--getss", partition.device)
    status = os.statvfs(partition.volume.mount_point)
    assert found(partition) == {
        "device": partition.device, "deviceName": partition.device.removeprefix("/dev/"),
        "fileSystem": partition.volume.file_system, "size": size, "uuid": partition.uuid, "label": name,
        "displayName": f"{partition.uuid} ({partition.volume.mount_point})",
        "mountPoints": [partition.volume.mount_point], "blockSize": status.f_bsize,
        "blockCount": size // status.f_bsize, "sectorSize": sector, "sectorCount": size // sector,
        "hiddenSectors": 0, "partScheme": "GPT", "volumeType": "", "mounted": True, "readOnly": False,
        "removable": False, "osVolume": False, "sysVolume": False, "exists": True}


def test_mount_point_of_any_characters(lab_site):
    assert found(lab_site.disk["files"])["mountPoints"] == ["/mnt/Büro und Lager"]
    path = "/mnt/a b\tc\\d\"e,f#\nÄ"
    with lab_site.disk["spare"].mounted(path):
        wait_for_mounts(lab_site.disk["spare"], path)


def test_unmounted_volume(lab_site):
    volume = found(lab_site.disk["spare"])
    assert (volume["blockSize"], volume["blockCount"]) == (0, 0)
    assert volume["sectorSize"] == 512 and volume["sectorCount"] == (1 << 30) // 512
    assert not volume["mounted"] and not volume["readOnly"] and volume["mountPoints"] == []
    assert volume["displayName"] == lab_site.disk["spare"].uuid


def test_unmounted_volume_that_fstab_has_read_only(lab_site):
    assert lab_site.disk["archive"].volume.fstab == "defaults,ro"
    assert found(lab_site.disk["archive"])["readOnly"]


def test_mount_tells_more_than_fstab(lab_site):
    archive, spare = lab_site.disk["archive"], lab_site.disk["spare"]
    with archive.mounted("/mnt/archive", "rw"), spare.mounted("/mnt/spare", "ro"):
        wait_for_mounts(archive, "/mnt/archive")
        wait_for_mounts(spare, "/mnt/spare")
        assert not found(archive)["readOnly"]
        assert found(spare)["readOnly"]


def test_volume_mounted_twice(lab_site):
    spare = lab_site.disk["spare"]
    with spare.mounted("/mnt/one"), spare.mounted("/mnt/two"):
        wait_until(lambda: set(found(spare)["mountPoints"]) == {"/mnt/one", "/mnt/two"}, SECONDS, "both")
        volume = found(spare)
        assert volume["displayName"] == f"{spare.uuid} ({volume['mountPoints'][0]})"


def test_swap_space(lab_site):
    swap = found(lab_site.disk["swap"])
    assert swap["fileSystem"] == "swap" and swap["mountPoints"] == ["<swap>"]
    assert not swap["mounted"] and swap["blockSize"] == 0 and swap["sectorCount"] == (64 << 20) // 512


def test_disk_is_no_volume(lab_site):
    [found_volumes], log = ask("")
    devices = {volume["device"] for volume in found_volumes}
    assert lab_site.disk.device not in devices
    assert {partition.device for partition in lab_site.disk} <= devices
    name = pathlib.Path(lab_site.disk.device).name
    line = f'4 Found object at "/org/freedesktop/UDisks2/block_devices/{name}"'
    assert log[log.index(line) + 1] == "4 Object is neither a filesystem nor swapspace."


def test_log_of_a_volume(lab_site):
    _, log = ask("")
    device = lab_site.disk["swap"].device
    assert f'4 Found object at "/org/freedesktop/UDisks2/block_devices/{pathlib.Path(device).name}"' in log
    assert f"4 device: {device}, sectors: 131072, sector size: 512, devsize: 67108864" in log


def test_unknown_uuid(lab_site):
    [volume], log = ask("no such volume")
    assert volume is None
    assert not [line for line in log if line[0] in "012"]


def test_partition_without_a_file_system_is_no_volume(lab_site):
    with further_disk(lab_site, Volume("nothing", mebibytes=8), Volume("something", "ext4", 8)) as disk:
        assert disk["something"].device in listed()
        assert disk["nothing"].device not in listed()


def test_other_partition_table(lab_site):
    with further_disk(lab_site, Volume("one", "ext4", 8), scheme="dos") as disk:
        assert found(disk["one"])["partScheme"] == "MBR"


def test_rest_behind_the_last_block(lab_site):
    """A partition may end at any sector."""
    odd = Volume("odd", "ext4", 64 + 1 / 2048, mount_point="/mnt/odd")
    with further_disk(lab_site, odd) as disk:
        wait_for_mounts(disk["odd"], "/mnt/odd")
        [volume], log = ask(disk["odd"].uuid)
        assert volume["blockSize"] == 1024 and volume["blockCount"] == 65536
        assert (f"2 Device size {(64 << 20) + 512} is not evenly divisible by the block size 1024, ignoring "
                "512 bytes at the end.") in log


def test_file_system_on_a_bare_loop_device(lab_site):
    """The size is that of the file system, which is smaller than the device."""
    with bare_loop(lab_site, 64) as loop, loop.mounted("/mnt/bare"):
        wait_until(lambda: listed()[loop.device]["mounted"], SECONDS, "the mount")
        volume, status = listed()[loop.device], os.statvfs("/mnt/bare")
        assert volume["blockSize"] == status.f_bsize and volume["size"] == 64 << 20
        assert volume["blockCount"] == status.f_blocks < volume["size"] // volume["blockSize"]
        assert volume["partScheme"] == ""


def test_volume_without_a_uuid(lab_site):
    with further_disk(lab_site, Volume("nameless", "ext4", 8)) as disk:
        device = disk["nameless"].device
        run("tune2fs", "-U", "clear", device)
        volumes.announce(device)
        wait_for_uuid(lab_site, device, "")
        volume = listed()[device]
        assert volume["uuid"] == "" and volume["fileSystem"] == "ext4" and volume["label"] == "nameless"


def test_device_that_has_vanished(lab_site):
    """The device node is gone; udisks2 hasn't noticed yet."""
    with further_disk(lab_site, Volume("gone", "ext4", 8)) as disk:
        partition = disk["gone"]
        pathlib.Path(partition.device).unlink()
        [volume], log = ask(partition.uuid)
        assert (volume["exists"], volume["sectorSize"], volume["sectorCount"]) == (False, 0, 0)
        assert f'2 Cannot open volume "{partition.device}" for reading.' in log
        make_node(pathlib.Path(partition.device).name)
        uuid = partition.uuid
    wait_until(lambda: ask(uuid)[0] == [None], SECONDS, "udisks2 to forget the disk")


def test_full_volume(lab_site):
    with further_disk(lab_site, Volume("full", "ext4", 8, "/mnt/full")) as disk:
        with contextlib.suppress(OSError), open("/mnt/full/all", "wb", buffering=0) as file:
            while file.write(bytes(4096)):
                pass
        wait_for_mounts(disk["full"], "/mnt/full")
        assert os.statvfs("/mnt/full").f_bavail == 0
        assert found(disk["full"])["blockCount"] == (8 << 20) // 1024


def test_each_question_is_answered_anew(lab_site):
    """One provider answers each question with current data, while disks come and go."""
    with subprocess.Popen([program("Volumes")], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL, text=True) as lister:
        def uuids():
            lister.stdin.write("\n")
            lister.stdin.flush()
            return {volume["uuid"] for volume in json.loads(lister.stdout.readline())}

        lasting = {partition.uuid for partition in lab_site.disk}
        assert lasting <= uuids()
        with further_disk(lab_site, Volume("further", "ext4", 8)) as disk:
            further = disk["further"].uuid
            assert lasting | {further} <= uuids()
        wait_until(lambda: further not in uuids(), SECONDS, "the disk forgotten")
        assert lasting <= uuids()


def test_without_the_service(lab_site):
    """No process owns the service's name, and the bus can't start it."""
    lab_site.udisks.stop()
    run("mount", "--bind", "/dev/null", ACTIVATION)
    try:
        run("busctl", "--system", "call", "org.freedesktop.DBus", "/org/freedesktop/DBus",
                    "org.freedesktop.DBus", "ReloadConfig")
        answers, _ = ask("", "some-uuid")
        assert answers == [NO_SERVICE, NO_SERVICE]
    finally:
        run("umount", ACTIVATION)
        lab_site.udisks.start()
    assert found(lab_site.disk["data"])["mounted"]


def test_without_a_bus(tmp_path):
    """The bus doesn't exist, in a program without the site's services."""
    environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={tmp_path}/none"}
    done = subprocess.run([program("Volumes")], input="\n", capture_output=True, text=True, check=True,
                          timeout=SECONDS, env=environment)
    assert json.loads(done.stdout) == ("Cannot initialize udisks client: Could not connect: "
                                       "No such file or directory")
