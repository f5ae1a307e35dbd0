"""One call of the iSCSI transport consists of many commands. Targets of two implementations may answer them
in another order, with less than was asked for, later, or not at all."""
import errno
import random
import time

import pytest

from contract import IMAGE_BYTES, assert_keeps_contract
from iscsi_call import (LONGEST_READ, LONGEST_WRITE, READ_AGAIN, READ_FAILED, ROUNDS, WRITE_AGAIN,
                        WRITE_FAILED, Transport)
from iscsi_faults import SILENCE, Cut, Refuse, Reorder, Shorten, Slots
from iscsi_relay import Relay
from iscsi_wire import BUSY, CHECK_CONDITION, TASK_SET_FULL
from lab.delay import DelayProxy
from lab.istgt import Istgt
from lab.targets import Target

SECTOR = 512
SIZE = 4 << 20 # of an image, and the largest size of a call
COMMANDS = {"write": SIZE // LONGEST_WRITE, "read": SIZE // LONGEST_READ} # commands of such a call
EACH = range(1 << 30)
COMMAND_SECONDS = 60
TROUBLES = {"write": [WRITE_FAILED, WRITE_AGAIN], "read": [READ_FAILED, READ_AGAIN]}
NOT_NOW = pytest.mark.parametrize("status", [BUSY, TASK_SET_FULL], ids=["busy", "full"])


@pytest.fixture(params=[Target, Istgt], ids=["tgtd", "istgt"])
def target(request):
    with request.param() as running:
        yield running


@pytest.fixture
def image(target):
    return target.add_image("data", SIZE)


@pytest.fixture
def relay(target, image):
    with Relay(target) as running:
        yield running


@pytest.fixture
def transport(relay, image):
    with Transport(relay, image) as running:
        yield running


@pytest.fixture
def source(tmp_path):
    """A file of the image's size, to be written to the image."""
    path = tmp_path / "source"
    path.write_bytes(random.Random("source").randbytes(SIZE))
    return path


class Call:
    """One call that transfers the whole image, in one of three ways."""

    def __init__(self, kind, transport, image, source, directory):
        self.kind = kind
        self._transport = transport
        self._image = image
        self._source = source
        self._directory = directory
        self.command = "write" if kind == "write" else "read"
        self.commands = COMMANDS[self.command]
        self.troubles = TROUBLES[self.command]
        if kind != "write":
            image.path.write_bytes(source.read_bytes())
        assert transport.do("compare" if kind == "compare" else "connect") == 0

    def run(self):
        """Makes the call, and checks that all data has arrived."""
        if self.kind == "read":
            assert self._transport.read(SIZE, self._directory) == self._source.read_bytes()
        else:
            assert self._transport.write(self._source) == SIZE
            assert self._image.path.read_bytes() == self._source.read_bytes()


@pytest.fixture(params=["write", "read", "compare"])
def call(request, transport, image, source, tmp_path):
    return Call(request.param, transport, image, source, tmp_path)


def test_a_call_is_many_commands_in_flight_at_once(call, relay, transport):
    relay.fault = Reorder(call.commands)
    call.run()
    assert transport.logged_warnings() == []
    assert [session.counts for session in relay.sessions] == [{call.command: call.commands}]
    assert relay.sessions[0].most > 8


def test_answers_in_another_order(call, relay, transport):
    relay.fault = Reorder(5)
    call.run()
    assert transport.logged_warnings() == []
    assert relay.fault.largest > 1
    assert relay.total(call.command) == call.commands


@NOT_NOW
def test_commands_that_are_refused_for_now_are_sent_again(call, relay, transport, status):
    """They are sent again in the same session, and without a line in the log."""
    relay.fault = Refuse(status, range(1, call.commands, 3))
    call.run()
    assert transport.logged_warnings() == []
    assert relay.fault.injected == len(range(1, call.commands, 3))
    assert len(relay.sessions) == 1
    assert relay.total(call.command) == call.commands + relay.fault.injected


@pytest.mark.parametrize("target", [Target], indirect=True) # the other target gets the data with the command
@pytest.mark.parametrize("call", ["write"], indirect=True)
def test_a_target_that_refuses_commands_before_it_has_their_data(call, relay, transport):
    relay.fault = Refuse(TASK_SET_FULL, range(1, call.commands, 3), is_early=True)
    call.run()
    assert transport.logged_warnings() == []
    assert relay.fault.injected == len(range(1, call.commands, 3))


@NOT_NOW
def test_a_command_that_is_refused_while_it_is_alone_fails(relay, transport, image, source, status):
    assert transport.do("connect") == 0
    relay.fault = Refuse(status, {0})
    assert transport.write(source, 0, SECTOR) == SECTOR
    assert transport.logged_warnings() == [WRITE_FAILED, WRITE_AGAIN]
    assert [session.counts["write"] for session in relay.sessions] == [1, 1]
    assert image.path.read_bytes()[:SECTOR] == source.read_bytes()[:SECTOR]


def test_a_target_that_takes_nothing_fails_the_call(relay, transport, image, source):
    assert transport.do("connect") == 0
    before = image.path.read_bytes()
    relay.fault = Refuse(BUSY, EACH)
    assert transport.write(source) == (-1, errno.EIO)
    assert transport.logged_warnings() == ROUNDS * [WRITE_FAILED, WRITE_AGAIN] + [WRITE_FAILED]
    assert len(relay.sessions) == 1 + ROUNDS
    assert image.path.read_bytes() == before


def test_the_number_in_flight_settles_at_what_a_target_takes(target, image, source):
    slots, calls = 4, 8
    with DelayProxy(target.port, 0.002) as proxy, Relay(target, proxy.portal) as relay, \
            Transport(relay, image) as transport:
        assert transport.do("connect") == 0
        relay.fault = Slots(slots)
        assert transport.write(source) == SIZE
        learnt = relay.fault.injected
        for _ in range(calls):
            assert transport.do("seek", 0, 0) == 0
            relay.sessions[0].most = 0
            assert transport.write(source) == SIZE
            assert slots <= relay.sessions[0].most < 2 * slots
        assert relay.fault.injected - learnt < learnt
        assert transport.logged_warnings() == []
        assert len(relay.sessions) == 1
    assert image.path.read_bytes() == source.read_bytes()


def check_repeated(call, relay, transport):
    """Checks that the call fails once, and that everything is sent again in a second session."""
    call.run()
    assert relay.fault.injected == 1
    assert transport.logged_warnings() == call.troubles
    assert len(relay.sessions) == 2
    assert relay.sessions[1].counts[call.command] == call.commands


@pytest.mark.parametrize("number", [0, -1])
def test_one_command_of_many_fails(call, relay, transport, number):
    relay.fault = Refuse(CHECK_CONDITION, {number % call.commands})
    check_repeated(call, relay, transport)


@pytest.mark.parametrize("call", ["read", "compare"], indirect=True)
@pytest.mark.parametrize(("missing", "is_told"), [(SECTOR, True), (SECTOR, False), (1, False)])
def test_a_command_that_delivers_less(call, relay, transport, missing, is_told):
    relay.fault = Shorten({call.commands // 2}, missing, is_told)
    check_repeated(call, relay, transport)


def test_a_session_that_breaks_with_half_of_the_commands_answered(call, relay, transport, faults):
    relay.fault = Cut(call.commands // 2)
    check_repeated(call, relay, transport)
    assert relay.sessions[0].answered == call.commands // 2
    assert relay.fault.lost > 0
    faults.note(f"{relay.name}: {call.kind}, cut with {relay.fault.lost} of {call.commands} under way",
                "repeated")


@pytest.mark.parametrize("target", [Target], indirect=True)
def test_a_command_that_is_never_answered(relay, transport, image, source):
    """The command times out after a minute; then the call is repeated."""
    assert transport.do("connect") == 0
    relay.fault = Refuse(SILENCE, {COMMANDS["write"] // 2})
    begun = time.monotonic()
    transport.give("write", source, 0, SIZE)
    assert transport.has_answer(2 * COMMAND_SECONDS)
    assert time.monotonic() - begun >= COMMAND_SECONDS - 1
    assert transport.take() == SIZE
    assert transport.logged_warnings() == [WRITE_FAILED, WRITE_AGAIN]
    assert image.path.read_bytes() == source.read_bytes()


@pytest.mark.parametrize("target", [Istgt], indirect=True)
def test_contract_of_all_transports(target, image, tmp_path):
    image = target.add_image("contract", IMAGE_BYTES)
    assert_keeps_contract("TransportContract", tmp_path, TARGET_NAME=target.name, TARGET_PORTAL=target.portal,
                          TARGET_LUN=image.lun, TARGET_FILE=image.path)
