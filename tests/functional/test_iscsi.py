"""The iSCSI transport against a real target, with a program that contains only the transport.

The data is checked in the target's own files, and commands are counted at the target; the program prints what
the agent would log.
"""
import contextlib
import errno
import random
import socket
import time

import pytest

from contract import IMAGE_BYTES, assert_keeps_contract
from iscsi_call import READ_AGAIN, ROUNDS, WRITE_AGAIN, Transport
from lab.targets import ADDRESS, Target

SIZE = 4 << 20
PIECE = 64 << 10
LOGIN_FAILED = "Iscsi target connect or Login failed: Try: "


@pytest.fixture
def target():
    with socket.create_server((ADDRESS, 0)) as server:
        port = server.getsockname()[1]
    with Target(port) as target:
        yield target


@pytest.fixture
def image(target):
    return target.add_image("data", SIZE)


@pytest.fixture
def source(tmp_path):
    """A file of the image's size, to be written to the image."""
    path = tmp_path / "source"
    path.write_bytes(random.Random("source").randbytes(SIZE))
    return path


def pieces():
    return range(0, SIZE, PIECE)


def stream(transport, source):
    """Sends the commands that write the whole image."""
    for offset in pieces():
        transport.give("write", source, offset, PIECE)


def answers(transport, count):
    return [transport.take() for _ in range(count)]


def connect_in_vain(transport, code):
    """Connects, which must fail. Checks that the retries come a second after each other, and that the last
    error has `code`. Returns the errors."""
    begun = time.monotonic()
    assert transport.do("connect") != 0
    assert ROUNDS <= time.monotonic() - begun < 3 * ROUNDS
    warnings = transport.logged_warnings()
    assert warnings[-1] == "Iscsi target connect exceeded max retries. Aborting."
    tries = warnings[:-1]
    numbers = [text.removeprefix(LOGIN_FAILED).split()[0] for text in tries]
    assert numbers == ["1", "2", "3", "4", "5"]
    assert [text.endswith(f" [failure:{code}]") for text in tries] == [False] * 4 + [True], tries
    return tries


@pytest.mark.parametrize("block_size", [512, 4096])
def test_what_is_written_is_in_the_image_and_comes_back(target, source, tmp_path, block_size):
    image = target.add_image("data", SIZE, block_size)
    with Transport(target, image) as transport:
        assert transport.do("connect") == 0
        texts = [text for _level, text in transport.log()]
        assert f"tBlock size: {block_size}" in texts
        assert f"tBlock count: {SIZE // block_size}" in texts
        stream(transport, source)
        assert answers(transport, len(pieces())) == [PIECE] * len(pieces())
        assert image.path.read_bytes() == source.read_bytes()
        assert transport.do("seek", PIECE, 0) == PIECE
        assert transport.read(PIECE, tmp_path) == source.read_bytes()[PIECE:2 * PIECE]
        assert transport.do("disconnect") == 0
        assert transport.logged_warnings() == []


def test_the_image_ends_at_its_size(target, image, source, tmp_path):
    with Transport(target, image) as transport:
        assert transport.do("connect") == 0
        assert transport.do("seek", SIZE + 1, 0) == (-1, errno.EINVAL)
        assert transport.do("seek", SIZE, 0) == SIZE
        assert transport.read(PIECE, tmp_path) == b""
        assert transport.write(source, 0, PIECE) == (-1, errno.ENOSPC)
        assert transport.do("seek", SIZE - 512, 0) == SIZE - 512
        assert transport.write(source, 0, PIECE) == 512
        assert transport.do("seek", SIZE - 512, 0) == SIZE - 512
        assert transport.read(PIECE, tmp_path) == source.read_bytes()[:512]
        assert transport.logged_warnings() == []


def test_a_part_of_a_sector_is_not_written(target, source):
    image = target.add_image("data", SIZE, 4096)
    with Transport(target, image) as transport:
        assert transport.do("connect") == 0
        before = image.path.read_bytes()
        assert transport.write(source, 0, 512) == (-1, errno.EINVAL)
        assert transport.do("seek", 512, 0) == 512
        assert transport.write(source, 0, 4096) == (-1, errno.EINVAL)
        assert image.path.read_bytes() == before


def test_an_image_within_the_unit_leaves_the_rest_alone(target, image, source, tmp_path):
    offset = 1 << 20
    poison = image.path.read_bytes()
    content = source.read_bytes()
    with Transport(target, image, offset=offset) as transport:
        assert transport.do("connect") == 0
        assert transport.write(source, 0, PIECE) == PIECE
        assert transport.do("seek", 0, 0) == 0
        assert transport.read(PIECE, tmp_path) == content[:PIECE]
    assert image.path.read_bytes() == poison[:offset] + content[:PIECE] + poison[offset + PIECE:]


def test_the_right_password_opens_the_target(target, image, source):
    target.require_chap("agent", "correct horse")
    with Transport(target, image, user="agent", password="correct horse") as transport:
        assert transport.do("connect") == 0
        assert transport.write(source) == SIZE
        assert transport.logged_warnings() == []
    assert image.path.read_bytes() == source.read_bytes()


@pytest.mark.parametrize("password", ["wrong battery", ""])
def test_another_password_does_not(target, image, password):
    target.require_chap("agent", "correct horse")
    with Transport(target, image, user="agent" if password else "", password=password) as transport:
        tries = connect_in_vain(transport, "target-login")
        assert all("Error: " in text for text in tries)
        assert not any(password in text for text in tries if password), "passwords aren't for the log"


def test_a_name_that_the_target_does_not_have(target, image):
    with Transport(target, image, name="iqn.2026-01.example:nothing") as transport:
        tries = connect_in_vain(transport, "target-login")
        assert all(f"Target name: iqn.2026-01.example:nothing Target portal: {target.portal} LUN: 1" in text
                   for text in tries)


def test_a_unit_that_the_target_does_not_have(target, image):
    with Transport(target, image, lun=9) as transport:
        assert all("LUN: 9" in text for text in connect_in_vain(transport, "target-image"))


def test_a_portal_where_nobody_listens(target, image):
    with socket.create_server((ADDRESS, 0)) as server:
        portal = f"{ADDRESS}:{server.getsockname()[1]}"
    with Transport(target, image, portal=portal) as transport:
        tries = connect_in_vain(transport, "target-refused")
        assert all(f"Target portal: {portal}" in text for text in tries)
        assert transport.do("read", 512, "/dev/null") == (-1, errno.ENOTCONN)


def test_comparing_sends_nothing_to_an_equal_image(target, image, source):
    image.path.write_bytes(source.read_bytes())
    with Transport(target, image) as transport:
        assert transport.do("compare") == 0
        before = image.writes()
        stream(transport, source)
        assert answers(transport, len(pieces())) == [PIECE] * len(pieces())
        assert (image.writes() - before).commands == 0
        assert transport.logged_warnings() == []
    assert image.path.read_bytes() == source.read_bytes()


def test_comparing_sends_what_differs(target, image, source):
    damaged = bytearray(source.read_bytes())
    for position in (0, 5 * PIECE + 77, SIZE - 1):
        damaged[position] ^= 1
    image.path.write_bytes(damaged)
    with Transport(target, image) as transport:
        assert transport.do("compare") == 0
        before = image.writes()
        stream(transport, source)
        assert answers(transport, len(pieces())) == [PIECE] * len(pieces())
        written = image.writes() - before
        assert (written.commands, written.bytes) == (3, 3 * PIECE)
    assert image.path.read_bytes() == source.read_bytes()


def test_a_stream_of_writes_outlives_the_target(target, image, source):
    with Transport(target, image) as transport:
        assert transport.do("connect") == 0
        stream(transport, source)
        begun = answers(transport, len(pieces()) // 4)
        target.kill()
        transport.wait_for_warning(WRITE_AGAIN, times=ROUNDS - 2)
        target.restart()
        assert begun + answers(transport, len(pieces()) - len(begun)) == [PIECE] * len(pieces())
        assert "Failed during iscsi write command." in transport.logged_warnings()
        assert "Iscsi target connect failed. Aborting." in transport.logged_warnings()
    assert image.path.read_bytes() == source.read_bytes()


def test_a_stream_of_reads_outlives_the_target(target, image, source, tmp_path):
    content = source.read_bytes()
    image.path.write_bytes(content)
    with Transport(target, image) as transport:
        assert transport.do("connect") == 0
        for number, offset in enumerate(pieces()):
            transport.give("read", PIECE, tmp_path / f"{number}")
        begun = answers(transport, len(pieces()) // 4)
        target.kill()
        transport.wait_for_warning(READ_AGAIN)
        target.restart()
        assert begun + answers(transport, len(pieces()) - len(begun)) == [PIECE] * len(pieces())
    received = [(tmp_path / f"{number}").read_bytes() for number in range(len(pieces()))]
    assert b"".join(received) == content


def test_after_the_target_was_away_nothing_is_compared(target, image, source):
    image.path.write_bytes(source.read_bytes())
    with Transport(target, image) as transport:
        assert transport.do("compare") == 0
        assert transport.write(source, 0, PIECE) == PIECE
        assert image.writes().commands == 0
        target.restart()
        assert transport.write(source, PIECE, PIECE) == PIECE
        assert READ_AGAIN in transport.logged_warnings()
        before = image.writes()
        assert transport.write(source, 2 * PIECE, PIECE) == PIECE
        assert (image.writes() - before).commands == 1
    assert image.path.read_bytes() == source.read_bytes()


def test_a_target_that_stays_away_fails_the_write(target, image, source):
    with Transport(target, image) as transport:
        assert transport.do("connect") == 0
        assert transport.write(source, 0, PIECE) == PIECE
        target.kill()
        begun = time.monotonic()
        assert transport.write(source, PIECE, PIECE) == (-1, errno.EIO)
        assert ROUNDS <= time.monotonic() - begun < 3 * ROUNDS
        assert transport.logged_warnings().count(WRITE_AGAIN) == ROUNDS
        assert transport.write(source, PIECE, PIECE) == (-1, errno.ENOTCONN)


def test_a_target_that_stays_away_fails_the_comparison(target, image, source):
    with Transport(target, image) as transport:
        assert transport.do("compare") == 0
        target.kill()
        result, _number = transport.write(source, 0, PIECE)
        assert result == -1
        assert transport.logged_warnings()[-2:] == [
            "Failed to read a remote target block; the current block will be copied without diff "
            "[fallback:block-not-compared]",
            "Invalid seek position in remote target"]


def test_a_target_that_does_not_answer_for_a_while_is_waited_for(target, image, source):
    with Transport(target, image) as transport:
        assert transport.do("connect") == 0
        target.pause()
        with contextlib.ExitStack() as pause:
            pause.callback(target.resume)
            stream(transport, source)
            assert not transport.has_answer(3)
        assert answers(transport, len(pieces())) == [PIECE] * len(pieces())
        assert transport.logged_warnings() == []
    assert image.path.read_bytes() == source.read_bytes()


def test_leaving_a_target_that_is_gone_takes_no_time(target, image):
    with Transport(target, image) as transport:
        assert transport.do("connect") == 0
        target.kill()
        begun = time.monotonic()
        assert transport.do("disconnect") == 0
        assert time.monotonic() - begun < 3
        assert not any("logout" in text for text in transport.logged_warnings())


@pytest.mark.parametrize("sector", [512, 4096])
def test_contract_of_all_transports(target, tmp_path, sector):
    """Runs the test suite that the fakes of the unit tests pass too."""
    image = target.add_image("contract", IMAGE_BYTES, block_size=sector)
    assert_keeps_contract("TransportContract", tmp_path, TARGET_NAME=target.name, TARGET_PORTAL=target.portal,
                          TARGET_LUN=image.lun, TARGET_FILE=image.path)
