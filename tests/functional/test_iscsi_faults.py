"""Many iSCSI transport calls in a row, each with a fault of its own, on targets of two implementations."""
import contextlib
import math

import pytest

from fault_site import seeded
from iscsi_call import (LONGEST_READ, LONGEST_WRITE, READ_AGAIN, READ_FAILED, ROUNDS, WRITE_AGAIN,
                        WRITE_FAILED, Transport)
from iscsi_faults import Cut, Fault, Refuse, Reorder, Shorten, Slots
from iscsi_relay import Relay
from iscsi_wire import BUSY, CHECK_CONDITION, TASK_SET_FULL
from lab.istgt import Istgt
from lab.targets import Target

SECTOR = 512
LONGEST = 4 << 20 # of a call
SIZE = 6 << 20
CALLS_OF_ONE = 10 # of one transport
# istgt may have closed the connection before its answer to a logout is read.
KNOWN = {READ_AGAIN, READ_FAILED, WRITE_AGAIN, WRITE_FAILED, "Iscsi logout failed."}


def pick(chosen, commands):
    """The number of one randomly chosen command."""
    return {chosen.randrange(commands)}


def some(chosen, commands):
    """The numbers of some commands: at most as many as a call has retries, as each of them alone may make the
    call fail."""
    return set(chosen.sample(range(commands), chosen.randint(1, min(commands, ROUNDS))))


FAULTS = {
    "none": lambda _chosen, _commands: Fault(),
    "another order": lambda chosen, commands: Reorder(chosen.randint(1, commands)),
    "busy": lambda chosen, commands: Refuse(BUSY, some(chosen, commands)),
    "task set full": lambda chosen, commands: Refuse(TASK_SET_FULL, some(chosen, commands)),
    "few slots": lambda chosen, commands: Slots(chosen.randint(1, commands)),
    "check condition": lambda chosen, commands: Refuse(CHECK_CONDITION, pick(chosen, commands)),
    "less than asked for": lambda chosen, commands:
        Shorten(pick(chosen, commands), chosen.randint(1, SECTOR - 1), chosen.random() < 0.5),
    "a cut": lambda chosen, commands: Cut(chosen.randrange(commands)),
}


class Calls:
    """Operations that change an image or read it, each with a fault. `content` is what the image must
    hold."""

    def __init__(self, relay, transport, content, directory, chosen):
        self._relay = relay
        self._transport = transport
        self._content = content
        self._source = directory / "source"
        self._received = directory
        self._chosen = chosen

    def place(self):
        """The place of a call: any sectors of the image."""
        length = SECTOR * self._chosen.randint(1, LONGEST // SECTOR)
        return SECTOR * self._chosen.randint(0, (SIZE - length) // SECTOR), length

    def read(self, offset, length, fault):
        with self._at(offset, fault):
            assert self._transport.read(length, self._received) == self._content[offset:offset + length]

    def write(self, offset, length, fault):
        self._send(self._chosen.randbytes(length), offset, fault)

    def compare(self, offset, length, fault):
        """The image differs from the data in one byte, or not at all."""
        data = self._content[offset:offset + length]
        data[self._chosen.randrange(length)] ^= self._chosen.randint(0, 1)
        assert self._transport.do("disconnect") == 0
        assert self._transport.do("compare") == 0
        self._send(data, offset, fault)

    def _send(self, data, offset, fault):
        self._source.write_bytes(data)
        with self._at(offset, fault):
            assert self._transport.write(self._source) == len(data)
        self._content[offset:offset + len(data)] = data

    @contextlib.contextmanager
    def _at(self, offset, fault):
        assert self._transport.do("seek", offset, 0) == offset
        self._relay.fault = fault
        yield
        self._relay.fault = Fault()


class Run:
    """A sequence of calls with faults on one target."""

    def __init__(self, target, directory, chosen, faults):
        self._target = target
        self._image = target.add_image("data", SIZE)
        self._content = bytearray(self._image.path.read_bytes())
        self._directory = directory
        self._chosen = chosen
        self._faults = faults
        self.met = set()

    def make(self, calls):
        """Makes the calls with several transports, as a transport remembers what it has learnt of the
        target."""
        kinds = list(FAULTS) * math.ceil(calls / len(FAULTS))
        self._chosen.shuffle(kinds)
        for begin in range(0, calls, CALLS_OF_ONE):
            self._make_some(kinds[begin:begin + CALLS_OF_ONE])

    def _make_some(self, kinds):
        with Relay(self._target) as relay, Transport(relay, self._image) as transport:
            assert transport.do("connect") == 0
            calls = Calls(relay, transport, self._content, self._directory, self._chosen)
            for kind in kinds:
                self._make_one(calls, kind)
                assert set(transport.logged_warnings()) <= KNOWN, transport.log()
        assert self._image.path.read_bytes() == self._content

    def _make_one(self, calls, kind):
        call = self._chosen.choice([calls.read, calls.write, calls.compare])
        offset, length = calls.place()
        commands = math.ceil(length / (LONGEST_WRITE if call == calls.write else LONGEST_READ))
        fault = FAULTS[kind](self._chosen, commands)
        call(offset, length, fault)
        if fault.injected:
            self.met.add(kind)
            self._faults.note(f"{self._target.name}: {kind}, {fault.injected} times, {commands} commands to "
                              f"{call.__name__}", "all is right")


@pytest.mark.parametrize(("make", "calls"), [(Target, 100), (Istgt, 40)]) # a login takes a second there
def test_random_faults(make, calls, tmp_path, faults):
    with make() as target:
        run = Run(target, tmp_path, seeded(), faults)
        run.make(calls)
    assert run.met == FAULTS.keys() - {"none"}
