"""The information that bek-restore shows about an image, compared with that of the tools that made it."""
import json
import time

import pytest

from lab.commands import run
from lab.image_server import address_of
from lab.targets import Target
from lab.volume_images import make_image, mounted
from restore_site import MIB, refusal, restore

UUID = "0b1c2d3e-4f50-6172-8394-a5b6c7d8e9f0"
MAKING = {
    "ext4": (100, ("-L", "some label", "-U", UUID), "some label", UUID, "metadata_csum"),
    "xfs": (320, ("-L", "some", "-m", f"uuid={UUID}"), "some", UUID, "REFLINK"),
    "ntfs": (100, ("-L", "some label"), "some label", None, "version 3.1"),
    "vfat": (100, ("-n", "SOME"), "SOME", None, "FAT32"),
}


def info(*arguments, **options):
    return json.loads(restore("info", *arguments, "--json", **options))


@pytest.mark.parametrize("file_system", MAKING)
def test_file_system_of_each_kind(file_system, directory):
    mebibytes, making, label, uuid, feature = MAKING[file_system]
    image = make_image(directory / "image", mebibytes, file_system, *making)
    report = info(image)
    assert (report["kind"], report["label"], report["bytes"]) == (file_system, label, mebibytes * MIB)
    assert report["uuid"] == uuid if uuid else len(report["uuid"]) > 8
    assert 0 < report["usedBytes"] < report["volumeBytes"] <= report["bytes"]
    assert feature in report["features"] and report["journal"] == "clean" and report["note"] is None
    assert label in restore("info", image)


def test_wrong_commands(directory):
    assert refusal("nonsense", status=2).startswith("there is no command nonsense\n")
    assert refusal("info", directory, "--offset", "-1", status=2).startswith("--offset: is negative: -1\n")


def test_hfs_volume(directory):
    image = make_image(directory / "image", 40, "hfsplus")
    report = info(image)
    assert report["kind"] == "hfsplus" and report["usedBytes"] > 0
    assert report["journal"] in ("clean", "dirty")


@pytest.mark.parametrize("file_system", ["ext4", "xfs"])
def test_journal_that_has_to_be_replayed(file_system, directory):
    """The image is as a backup of a volume in use leaves it."""
    image = make_image(directory / "image", MAKING[file_system][0], file_system)
    begin = int(time.time())
    with mounted(image, file_system, directory / "tree") as (device, tree):
        (tree / "file").write_text("in the journal")
        run("sync")
        copy = directory / "copy"
        run("dd", f"if={device}", f"of={copy}", "bs=1M", "iflag=direct", "status=none")
    report = info(copy)
    assert report["journal"] == "needs replay"
    assert "replayed" in restore("info", copy)
    if file_system == "ext4":
        assert report["lastMounted"] >= time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(begin))
    assert info(image)["journal"] == "clean"


def test_image_with_nothing_known(directory):
    image = directory / "image"
    image.write_bytes(b"\xDB" * 4 * MIB)
    report = info(image)
    assert report["kind"] is None and report["usedBytes"] is None and report["partitions"] == []
    assert "nothing that is known" in restore("info", image)


def test_whole_disk(directory):
    """Shows the partitions, and how to address them."""
    disk = directory / "disk"
    with open(disk, "wb") as file:
        file.truncate(500 * MIB)
    run("sfdisk", "--quiet", disk, input="label: gpt\nsize=40MiB\nsize=100MiB\nsize=320MiB\n")
    part = make_image(directory / "part", 100, "ext4", "-L", "second")
    with open(disk, "r+b") as file:
        file.seek(41 * MIB)
        file.write(part.read_bytes())
    first, second, third = info(disk)["partitions"]
    assert (first["offset"], first["bytes"], first["kind"]) == (MIB, 40 * MIB, None)
    assert (second["offset"], second["label"]) == (41 * MIB, "second")
    assert third["offset"] == 141 * MIB
    assert "second" in restore("info", disk)
    assert info(disk, "--offset", 41 * MIB)["label"] == "second"


def test_whole_target(directory):
    with Target() as target:
        target.require_chap("agent", "twelve or more")
        for name, file_system in (("one", "ext4"), ("two", "ntfs")):
            made = make_image(directory / name, 100, file_system, "-L", name)
            target.add_image(name, 100 * MIB, poisoned=False).path.write_bytes(made.read_bytes())
        address, secret = address_of(target.images[0])
        whole = address.rpartition("/")[0]
        units = {unit["lun"]: unit for unit in info(whole, secret=secret)["units"]}
        shown = restore("info", whole, secret=secret)
        assert "can't be reached" in refusal("info", address, secret="something else!")
    assert (units[1]["kind"], units[1]["label"]) == ("ext4", "one")
    assert (units[2]["kind"], units[2]["label"]) == ("ntfs", "two")
    assert units[1]["bytes"] == 100 * MIB
    assert "one" in shown and "two" in shown


def test_tool_that_is_missing_is_named(directory):
    """Less information is shown, with the reason."""
    image = make_image(directory / "image", 100, "ntfs")
    with open("/dev/null", "rb") as nothing:
        run("mount", "--bind", nothing.name, "/usr/bin/ntfsinfo")
    try:
        report = info(image)
    finally:
        run("umount", "/usr/bin/ntfsinfo")
    assert report["kind"] == "ntfs" and report["journal"] == "unknown"
    assert "ntfsinfo" in report["note"]
