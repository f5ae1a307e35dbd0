"""What a Relay (iscsi_relay.py) does to commands that read or write; others pass. They are counted from 0 on,
from when the fault was given to the relay."""
import iscsi_wire as wire

SILENCE = -1 # in place of a status: there never is an answer


class Fault:
    """None."""

    def __init__(self):
        self.seen = 0 # commands
        self.injected = 0 # answers that are not what the target would have said

    def status_of(self, command):
        """Of a command that the target is not to have; None if it is."""
        self.seen += 1
        return self._choose(command)

    def _choose(self, _command):
        return None

    def answers(self, command):
        """The commands whose answers go out now that this one has been answered by the target."""
        return [command]

    def at_rest(self, _session):
        """The same, when nothing has come for a while from one side."""
        return []


class Refuse(Fault):
    """The chosen commands get this status; early ones before their data has come, as no target should."""

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
    """A target that has only so many commands under way at once."""

    def __init__(self, slots):
        super().__init__()
        self._slots = slots

    def _choose(self, command):
        if len(command.session.under_way) < self._slots:
            return None
        self.injected += 1
        return wire.TASK_SET_FULL


class Reorder(Fault):
    """Answers go out in groups, the latest first; a group may be smaller when the initiator wants to see
    answers before it sends more."""

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
    """The chosen commands deliver less than they were asked for, and may say so."""

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
    """The session ends when so many commands have been answered. Later sessions are spared."""

    def __init__(self, after):
        super().__init__()
        self.lost = 0 # commands that the target had carried out, or was at
        self._left = after
        self._session = None # that has been cut

    def answers(self, command):
        if self._left == 0 and not self._session:
            self.injected = 1
            self._session = command.session
            self.lost = len(self._session.under_way)
            self._session.cut()
        self._left -= 1
        return [] if command.session is self._session else [command]
