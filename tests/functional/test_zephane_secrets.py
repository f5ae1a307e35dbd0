"""A client without an image's secret gets no access, and no secret appears in logs or other output."""
import pathlib

import pytest

from backup_site import XFS, check, check_refused, fill_some
from lab.daemon import BASE
from lab.zephane import ZephaneServer, command_of

SERVER = ZephaneServer
VOLUMES = (XFS,)
WRONG = "a wrong secret of nobody's"
TRIES = 5


@pytest.fixture
def protection(protect, volumes):
    protection = protect()
    check(protection, protection.run(full=True), "full")
    fill_some(volumes, protection.partitions, "since")
    return protection


def check_lines(log, name, volume_id):
    for attempt in range(1, TRIES + 1):
        assert (f"Try: {attempt} Couldn't connect to zephane://127.0.0.1:25568/{name}/{volume_id} code: -13 "
                "message: ") in log
    assert log.count("Couldn't connect to zephane://") == TRIES
    assert "ZephaneFTP target connect exceeded max retries. Aborting. [failure:target-unreachable]\n" in log
    assert log.count(" [failure:target-login]\n") == 1
    assert ("Transport related error occurred during backup run: Failed to open transport connection while "
            "validating remote target [failure:target-unreachable]\n") in log


def check_nobody_tells(protection, agent, *secrets):
    """Checks that neither end writes a secret to any file, except the server's own configuration."""
    texts = [path.read_bytes().decode(errors="replace") for path in pathlib.Path(BASE).rglob("*")
             if path.is_file()]
    texts += [agent.errors, protection.target.output, *command_of(protection.target.pid)]
    for secret in secrets:
        assert not any(secret in text for text in texts)


def test_wrong_secret(protection, agent):
    [image] = protection.images.values()
    check_lines(check_refused(protection, password=WRONG), image.name, image.lun)
    check_nobody_tells(protection, agent, WRONG, image.secret)
    check(protection, protection.run(), "incremental")


def test_image_that_does_not_exist(protection, agent):
    """A missing image can't be distinguished from one with another secret, neither by path nor by ID."""
    [image] = protection.images.values()
    check_lines(check_refused(protection, name="another"), "another", image.lun)
    check_lines(check_refused(protection, lun=image.lun + 1), image.name, image.lun + 1)
    check_nobody_tells(protection, agent, image.secret)
    check(protection, protection.run(), "incremental")


def test_secret_of_another_image(protection, target):
    """The secret opens that image, and no other one."""
    other = target.add_image("other", 64 << 20)
    [image] = protection.images.values()
    check_lines(check_refused(protection, password=other.secret), image.name, image.lun)


def test_engine_does_not_know_the_secret(protection):
    """The command line of another process is visible to everybody."""
    [image] = protection.images.values()
    backup = protection.start(full=True)
    backup.wait_for_log("Beginning execution of the Copy Chunk Ranges phase.")
    words = command_of(image.engine())
    check(protection, backup.wait(), "full")
    assert str(image.path) in words
    assert not any(image.secret in word for word in words)
