"""The lab's own server of the second transport: the properties that the tests of backups rely on."""
import os
import pathlib
import signal

import pytest

from lab import poison
from lab.image_server import Writes
from lab.services import ServiceError
from lab.zephane import ZephaneServer, command_of, done_requests

MIB = 1 << 20
SERVER = ZephaneServer


def traces():
    return [path for place in ("/tmp", "/run") for path in pathlib.Path(place).glob("*")
            if path.name.startswith(("images-", "zephaned-"))]


def crash(server):
    os.kill(server.pid, signal.SIGKILL)


@pytest.mark.parametrize("ending", [ZephaneServer.kill, ZephaneServer.pause, ZephaneServer.restart, crash])
def test_nothing_stays_behind(ending):
    with ZephaneServer() as server:
        server.add_image("data", MIB)
        assert len(traces()) == 2
        pid = server.pid
        ending(server)
    assert (traces(), command_of(pid)) == ([], [])


def test_images_are_poison_and_outlive_the_server(target):
    one, other = target.add_image("data", 5 * MIB), target.add_image("files", MIB)
    assert poison.is_poison(one.path.read_bytes())
    assert (one.lun, other.lun) == (2**63, 2**63 + 1)
    assert one.secret != other.secret
    target.restart()
    assert [image.path.stat().st_size for image in target.images] == [5 * MIB, MIB]
    assert target.writes() == one.holes() == Writes(0, 0)
    assert (one.engine(), target.sessions()) == (None, 0)


def test_port_in_use_is_an_error(target):
    with pytest.raises(ServiceError, match="in use"), ZephaneServer(port=target.port):
        pass


def test_what_has_failed_or_is_under_way_does_not_count():
    lines = """connection=1 Write id=1 offset=0x0 count=0x1000 fua=0 ...
connection=1 Zero id=2 offset=0x1000 count=0x2000 trim=1 fua=0 fast=0 ...
connection=1 ...Zero id=2 return=0
connection=1 ...Write id=1 return=-1 error=EIO
connection=2 Write id=1 offset=0x4000 count=0x1000 fua=0 ...
connection=2 ...Write id=1 return=0
connection=1 Flush id=3 ...
connection=1 ...Flush id=3 return=0
connection=1 Write id=4 offset=0x0 count=0x1000 fua=0 ..."""
    found = list(done_requests(f"2026-01-01 00:00:00.000000 {line}" for line in lines.splitlines()))
    assert [tuple(request) for request in found] == \
        [("Zero", 0x1000, 0x2000), ("Write", 0x4000, 0x1000), ("Flush", 0, 0)]
