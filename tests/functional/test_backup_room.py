"""The room that CoW files of the default size need: on a small volume one fits, but not a second one."""
import re

import pytest

from lab.volumes import Volume

MIB = 1 << 20
SMALL = 1024 # mebibytes: the default is half of it
VOLUMES = (Volume("small", "ext4", SMALL, "/mnt/small"), Volume("roomy", "xfs", 3072, "/mnt/roomy"))


@pytest.fixture
def by_default(protect):
    """by_default(NAME) protects a volume with CoW files of the agent's default size."""
    def make(name):
        protection = protect(name, poisoned=False)
        protection.set_cow_size(0, name) # as if the key weren't set
        return protection
    return make


def test_second_backup_of_a_small_volume_takes_a_smaller_cow_file(by_default):
    protection = by_default("small")
    uuid = protection.partitions["small"].uuid
    first = protection.run(full=True)
    assert first.state == "finished", first.log
    assert "Invalid cow file size (1024) Clamping to (512)" in first.log
    second = protection.run()
    assert second.state == "failed"
    assert (second.status["connection_error"], second.status["snapshot_error"]) == (False, True)
    required = SMALL // 2 * MIB + 8 + SMALL * MIB // 4096 * 8
    found = re.search(rf"The required free space for volume {uuid} is {required} bytes \(514 MiB\), but only "
                      r"(\d+) bytes \([\d.]+ MiB\) is available", second.log)
    assert found and int(found[1]) < required, second.log
    assert f"Volume {uuid} (/mnt/small) is full, not enough free space to perform a backup" in second.log
    protection.set_cow_size(100, "small")
    third = protection.run()
    assert third.state == "finished", third.log
    assert third.type("small") == "incremental" # it was tracked all the time
    protection.verify()


def test_second_backup_of_a_roomy_volume_needs_no_setting(by_default):
    protection = by_default("roomy")
    for kind in ({"full": True}, {}, {}):
        backup = protection.run(**kind)
        assert backup.state == "finished", backup.log
        assert "Invalid cow file size" not in backup.log
    assert backup.type("roomy") == "incremental"
    protection.verify()
