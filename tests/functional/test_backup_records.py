"""The records of ended runs in the log, for programs: one for each volume, with codes of reasons."""
import json
import os
import re

import pytest

from backup_site import EXT4, XFS, fill, root_of, write_script

VOLUMES = (EXT4, XFS)
NAMES = tuple(volume.name for volume in VOLUMES)
RECORD = re.compile(r"\[INFO:\]     Backup record: (\{.*\})\n")
MARK = re.compile(r" \[(fallback|failure):([a-z-]+)\]\n")


@pytest.fixture
def protection(protect, volumes):
    for name in NAMES:
        fill(root_of(volumes[name]), name)
    return protect(*NAMES)


def check(protection, backup, outcome, asked, **types):
    """Checks that each volume has one record, before the end of this backup's run, and that it agrees with
    the status."""
    found = [json.loads(text) for text in RECORD.findall(backup.log.split("Backup run finished")[0])]
    records = {record["volume"]: record for record in found}
    assert len(found) == len(records) == len(NAMES), backup.log
    for name, partition in protection.partitions.items():
        record = records[partition.uuid]
        assert 0 < record.pop("seconds") < 300
        assert isinstance(record.pop("totalBytes"), int)
        assert record == {"backup": backup.id, "volume": partition.uuid, "outcome": outcome, "asked": asked,
                          "type": types.get(name, asked), "mountPoint": partition.volume.mount_point,
                          "copiedBytes": backup.bytes(name)}


def codes(backup):
    return MARK.findall(backup.log)


def test_records_and_codes_of_what_can_become_of_a_backup(protection):
    backup = protection.run(full=True)
    check(protection, backup, "success", "FULL")
    assert set(codes(backup)) == {("fallback", "volume-unknown")}

    with open(protection.images[NAMES[0]].path, "r+b") as image: # which makes it another image
        byte = os.pread(image.fileno(), 1, 4096)[0]
        os.pwrite(image.fileno(), bytes([byte ^ 1]), 4096)
    backup = protection.run()
    check(protection, backup, "success", "INCREMENTAL", **{NAMES[0]: "DIFFERENTIAL MERGE"})
    assert codes(backup) == [("fallback", "image-differs")]

    backup = protection.run(volumes=protection.request(scripts=["nobody"]))
    check(protection, backup, "failed", "INCREMENTAL")
    assert backup.log.count('"totalBytes":-1,') == len(NAMES)
    assert codes(backup)[0] == ("failure", "script-missing")

    write_script("slow", "#!/bin/sh\nsleep 2\n")
    backup = protection.start(volumes=protection.request(scripts=["slow"]))
    backup.wait_for_log("Quiescing volumes...")
    backup.cancel()
    check(protection, backup.wait(), "cancelled", "INCREMENTAL")
    assert not [code for kind, code in codes(backup) if kind == "failure"]

    backup = protection.run()
    check(protection, backup, "success", "INCREMENTAL")
    assert codes(backup) == []
    protection.verify()


def test_second_cow_file_that_will_not_fit_is_told_of_at_the_first_backup(protect, volumes):
    """The first backup logs a warning. If its advice isn't followed, the second file doesn't fit; if it is,
    the backup succeeds."""
    protection = protect(NAMES[0])
    protection.set_cow_size(155)
    backup = protection.run(full=True)
    assert backup.state == "finished", backup.log
    told = re.search(r"\[WARNING:\]  The next backup of volume (\S+) \(.+\) will need \S+ MiB for a second "
                     r"CoW file, and this one leaves \S+ MiB: free the rest, or set "
                     r"volumes\.(\S+)\.cowFileSizeMiB to (\d+) or less\n", backup.log)
    assert told and told[1] == told[2] == volumes[NAMES[0]].uuid, backup.log
    backup = protection.run()
    assert backup.state == "failed", backup.log
    assert ("failure", "volume-full") in codes(backup)
    protection.set_cow_size(min(100, int(told[3])))
    backup = protection.run()
    assert backup.state == "finished", backup.log
    assert "second CoW file" not in backup.log
    protection.verify()
