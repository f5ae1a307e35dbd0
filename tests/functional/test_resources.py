"""The resources that an idle daemon holds."""
import collections
import os
import pathlib
import resource
import signal

import pytest

from lab.daemon import PID_FILE
from lab.services import wait_until


Held = collections.namedtuple("Held", "descriptors threads")


def held(pid):
    """The targets of a process's descriptors, and the number of its threads."""
    process = pathlib.Path(f"/proc/{pid}")
    descriptors = {int(entry.name): os.readlink(entry) for entry in (process / "fd").iterdir()}
    return Held(descriptors, len(list((process / "task").iterdir())))


def is_waiting(pid):
    return pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] == "S"


def processor_times(pid):
    """The processor time that each thread of a process has used."""
    return {path: path.read_text() for path in pathlib.Path(f"/proc/{pid}/task").glob("*/schedstat")}


@pytest.mark.parametrize("is_foreground, files", [(True, []), (False, [str(PID_FILE.resolve())])])
def test_idle_agent_holds_little(make_daemon, is_foreground, files):
    """It has its own thread and that of the API, the standard descriptors and two of the API; in the
    background also the locked PID file. Even after many signals that it ignores."""
    daemon = make_daemon(foreground=is_foreground, close_fds=True).wait_until_ready()
    wait_until(lambda: is_waiting(daemon.pid), 20, "idle agent")
    before = held(daemon.pid)
    assert before.threads == 2
    beyond = [target for number, target in before.descriptors.items() if number > 2]
    assert sorted(target.split("[")[0] for target in beyond) == [*files, "anon_inode:", "socket:"]
    for _ in range(500):
        daemon.send(signal.SIGCONT)
        daemon.send(signal.SIGWINCH)
    wait_until(lambda: is_waiting(daemon.pid), 20, "idle agent")
    assert held(daemon.pid) == before
    assert daemon.stop() == 0


def test_idle_agent_uses_no_processor_time(foreground):
    """It sleeps between two events."""
    daemon = foreground()
    wait_until(lambda: is_waiting(daemon.pid), 20, "idle agent")
    wait_until(lambda: "0 0 0\n" not in processor_times(daemon.pid).values(), 20, "first turn of each thread")
    before = processor_times(daemon.pid)
    for _ in range(1000):
        assert is_waiting(daemon.pid)
    assert processor_times(daemon.pid) == before


def test_starts_with_few_descriptors(make_daemon):
    """A start needs only a few descriptors, and leaves inherited ones open."""
    inherited = os.open("/dev/null", os.O_RDONLY)
    try:
        daemon = make_daemon(pass_fds=[inherited], preexec_fn=lambda: resource.setrlimit(
            resource.RLIMIT_NOFILE, (inherited + 10, inherited + 10))).wait_until_ready()
        assert inherited in held(daemon.pid).descriptors
        assert daemon.stop() == 0
    finally:
        os.close(inherited)
