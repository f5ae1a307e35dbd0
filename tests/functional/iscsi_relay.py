"""A relay between a real initiator and a real target; a fault (iscsi_faults.py) decides what happens to each
command that reads or writes.

    with Relay(target) as relay, Transport(relay, image) as transport:
        relay.fault = Refuse(BUSY, {3, 5})

The target never sees the commands that the relay answers itself, so the relay renumbers commands and
statuses. It also counts: `relay.sessions` has a Session for each connection, oldest first.
"""
import collections
import contextlib
import select
import socket
import threading

import iscsi_wire as wire
from iscsi_faults import SILENCE, Fault
from lab.image_server import ADDRESS
from lab.resources import Resource

SECONDS = 20
IDLE = 0.05 # seconds


class Command:
    """A command that reads or writes; `answer` has the PDUs of its answer."""

    KINDS = {wire.READ16: "read", wire.WRITE16: "write"}

    def __init__(self, session, unit):
        cdb = unit.header[wire.CDB]
        self.session = session
        self.tag = unit.tag
        self.kind = self.KINDS[cdb[0]]
        self.answer = []
        self.is_early = False # whether the answer is sent before the data has come

    @property
    def has_ended(self):
        return bool(self.answer) and self.answer[-1].has_status

    @classmethod
    def is_one(cls, unit):
        return unit.kind == wire.COMMAND and unit.header[wire.CDB][0] in cls.KINDS


class Session:
    """One connection. Its two threads share the state, under a lock; methods of the fault are called under
    the lock."""

    def __init__(self, relay, near, far):
        self.counts = collections.Counter() # commands received, by kind
        self.answered = 0
        self.under_way = {} # commands that the target is executing, by tag
        self.most = 0 # highest number of commands that the initiator had under way at once
        self._relay = relay
        self._near, self._far = near, far
        self._lock = threading.Lock()
        self._kept = {} # commands that the target doesn't get, kept until their data has come
        self._withheld = 0 # the number of commands that the target didn't get
        self._status = None # number of the next status
        self._status_of_target = 0
        self._window = (0, 0)
        self._threads = [threading.Thread(target=self._carry, args=part, daemon=True)
                         for part in ((near, self._from_initiator), (far, self._from_target))]

    def start(self):
        for thread in self._threads:
            thread.start()

    def close(self):
        self.cut()
        for thread in self._threads:
            thread.join(SECONDS)
            assert not thread.is_alive()
        self._near.close()
        self._far.close()

    def cut(self):
        """Shuts both connections down, as if the network had failed, except that both ends notice."""
        for end in (self._near, self._far):
            with contextlib.suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)

    def _carry(self, source, handle):
        """Forwards one direction until either end has gone."""
        try:
            while True:
                self._wait(source)
                handle(wire.receive(source))
        except (OSError, EOFError):
            pass # the connection has ended
        finally:
            self.cut()

    def _wait(self, source):
        """Waits for data; calls the fault each time that none has come for a while."""
        while not select.select([source], [], [], IDLE)[0]:
            with self._lock:
                self._answer(self._relay.fault.at_rest(self))

    def _from_initiator(self, unit):
        with self._lock:
            is_for_target = self._take(unit)
            unit.set_number(wire.EXPECTED_STATUS, self._status_of_target)
            if unit.kind != wire.DATA_OUT:
                unit.set_number(wire.COMMAND_NUMBER, unit.number(wire.COMMAND_NUMBER) - self._withheld)
            self._withheld += not is_for_target and unit.kind == wire.COMMAND
        if is_for_target:
            self._far.sendall(unit.encode())

    def _take(self, unit):
        """Returns whether the unit is to be passed to the target."""
        if Command.is_one(unit):
            self._begin(Command(self, unit))
        is_for_target = unit.tag not in self._kept
        if unit.is_final and not is_for_target:
            self._answer([self._kept.pop(unit.tag)])
        return is_for_target

    def _begin(self, command):
        self.counts[command.kind] += 1
        status = self._relay.fault.status_of(command)
        (self.under_way if status is None else self._kept)[command.tag] = command
        if status not in (None, SILENCE):
            command.answer = [wire.response(command.tag, status)]
        self.most = max(self.most, len(self.under_way) + len(self._kept))
        if command.is_early:
            self._answer([command])
            command.answer = []

    def _from_target(self, unit):
        with self._lock:
            self._window = (unit.number(wire.EXPECTED_COMMAND), unit.number(wire.LAST_COMMAND))
            if unit.has_status:
                self._status_of_target = unit.number(wire.STATUS_NUMBER) + 1
            if self._status is None:
                self._status = unit.number(wire.STATUS_NUMBER)
            command = self.under_way.get(unit.tag)
            if command and unit.kind in (wire.DATA_IN, wire.RESPONSE):
                self._collect(command, unit)
            else:
                self._forward(unit)

    def _collect(self, command, unit):
        command.answer.append(unit)
        if command.has_ended:
            self._answer(self._relay.fault.answers(command))

    def _answer(self, commands):
        for command in commands:
            self.under_way.pop(command.tag, None)
            self.answered += command.has_ended
            for unit in command.answer:
                self._forward(unit)

    def _forward(self, unit):
        if unit.has_status:
            unit.set_number(wire.STATUS_NUMBER, self._status)
            self._status += 1
        for at, number in zip((wire.EXPECTED_COMMAND, wire.LAST_COMMAND), self._window):
            unit.set_number(at, number + self._withheld)
        self._near.sendall(unit.encode())


class Relay(Resource):
    """Listens on a port of its own, in front of a target, or of a portal that leads to it."""

    def __init__(self, target, portal=None):
        super().__init__()
        self.name = target.name
        self.fault = Fault()
        self.sessions = []
        self._portal = portal or target.portal
        self._listener = None

    @property
    def portal(self):
        return f"{ADDRESS}:{self._listener.getsockname()[1]}"

    def open(self, stack):
        self._listener = stack.enter_context(socket.create_server((ADDRESS, 0)))
        acceptor = threading.Thread(target=self._accept, daemon=True)
        acceptor.start()
        stack.callback(self._end_sessions)
        stack.callback(acceptor.join, SECONDS)
        stack.callback(self._listener.shutdown, socket.SHUT_RDWR)

    def _accept(self):
        with contextlib.suppress(OSError):
            while True:
                near, _ = self._listener.accept()
                self._serve(near)

    def _serve(self, near):
        address, port = self._portal.split(":")
        try:
            far = socket.create_connection((address, int(port)), SECONDS)
        except OSError:
            near.close()
            return
        far.settimeout(None)
        for end in (near, far):
            end.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.sessions.append(Session(self, near, far))
        self.sessions[-1].start()

    def _end_sessions(self):
        for session in self.sessions:
            session.close()

    def total(self, kind):
        """The number of commands of a kind so far, over all sessions."""
        return sum(session.counts[kind] for session in self.sessions)
