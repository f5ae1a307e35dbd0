"""Faults that a Relay (iscsi_relay.py) applies to commands that read or write; other commands pass. The
commands are counted from 0, starting when the relay gets the fault."""
import iscsi_wire as wire

SILENCE = -1 # instead of a status: the command is never answered


class Fault:
    """No fault; the base class of the others."""

    def __init__(self):
        self.seen = 0 # commands
        self.injected = 0 # answers that differ from the target's

    def status_of(self, command):
        """The status for a command that the target must not get; None if the target gets it."""
        self.seen += 1
        return self._choose(command)

    def _choose(self, _command):
        return None

    def answers(self, command):
        """The commands whose answers go out now that the target has answered this one."""
        return [command]

    def at_rest(self, _session):
        """The same, when one side has sent nothing for a while."""
        return []


class Refuse(Fault):
    """Gives this status to the chosen commands. If `is_early`, before their data has come, as no target
    should do."""

    def __init__(self, status, chosen, *, is_early=False):
        super().__init__()
        self._status = status
        self._chosen = chosen
        self._is_early = is_early

    def _choose(self, command):
        if self.seen - 1 not in self._chosen:
            return None
        self.injected += 1
        command.is_early = self._is_early
        return self._status


class Slots(Fault):
    """A target that accepts only this number of commands at once."""

    def __init__(self, slots):
        super().__init__()
        self._slots = slots

    def _choose(self, command):
        if len(command.session.under_way) < self._slots:
            return None
        self.injected += 1
        return wire.TASK_SET_FULL


class Reorder(Fault):
    """Sends answers in groups, in reverse order. A group may be smaller if the initiator waits for answers
    before it sends more."""

    def __init__(self, size):
        super().__init__()
        self.largest = 0 # of the groups
        self._size = size
        self._held = []

    def answers(self, command):
        self._held.append(command)
        return self._release() if len(self._held) == self._size else []

    def at_rest(self, session):
        return self._release() if len(self._held) == len(session.under_way) else []

    def _release(self):
        released, self._held = self._held[::-1], []
        self.largest = max(self.largest, len(released))
        self.injected += len(released) > 1
        return released


class Shorten(Fault):
    """Makes the chosen commands deliver less than was asked for; the answer may admit it or not."""

    def __init__(self, chosen, missing, is_told):
        super().__init__()
        self._chosen = chosen
        self._missing = missing
        self._is_told = is_told
        self._tags = set()

    def _choose(self, command):
        if self.seen - 1 in self._chosen and command.kind == "read":
            self._tags.add(command.tag)

    def answers(self, command):
        if command.tag in self._tags:
            self._tags.remove(command.tag)
            self.injected += 1
            self._shorten(command.answer)
        return [command]

    def _shorten(self, answer):
        last = [unit for unit in answer if unit.data][-1]
        assert len(last.data) > self._missing
        last.data = last.data[:-self._missing]
        if self._is_told:
            answer[-1].header[1] |= wire.UNDERFLOW
            answer[-1].set_number(wire.RESIDUAL, self._missing)


class Cut(Fault):
    """Ends the session after this number of commands has been answered. Later sessions aren't cut."""

    def __init__(self, after):
        super().__init__()
        self.lost = 0 # commands that the target had executed, or was executing
        self._left = after
        self._session = None # the session that has been cut

    def answers(self, command):
        if self._left == 0 and not self._session:
            self.injected = 1
            self._session = command.session
            self.lost = len(self._session.under_way)
            self._session.cut()
        self._left -= 1
        return [] if command.session is self._session else [command]
