"""What an idle daemon holds."""
import os
import pathlib
import resource
import signal

import pytest

from lab.services import wait_until


def held(pid):
    """The descriptors and the number of threads of a process."""
    process = pathlib.Path(f"/proc/{pid}")
    descriptors = {int(entry.name) for entry in (process / "fd").iterdir()}
    return descriptors, len(list((process / "task").iterdir()))


def is_waiting(pid):
    return pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] == "S"


@pytest.mark.parametrize("is_foreground, descriptors", [(True, {0, 1, 2}), (False, {0, 1, 2, 3})])
def test_idle_agent_holds_little(make_daemon, is_foreground, descriptors):
    """One thread and the standard descriptors, in the background the locked PID file too; also after many
    signals that mean nothing to the agent."""
    daemon = make_daemon(foreground=is_foreground, close_fds=True).wait_until_ready()
    wait_until(lambda: is_waiting(daemon.pid), 20, "idle agent")
    assert held(daemon.pid) == (descriptors, 1)
    for _ in range(500):
        daemon.send(signal.SIGCONT)
        daemon.send(signal.SIGWINCH)
    wait_until(lambda: is_waiting(daemon.pid), 20, "idle agent")
    assert held(daemon.pid) == (descriptors, 1)
    assert daemon.stop() == 0


def test_idle_agent_uses_no_processor_time(foreground):
    """Between two events it sleeps."""
    daemon = foreground()
    wait_until(lambda: is_waiting(daemon.pid), 20, "idle agent")
    before = pathlib.Path(f"/proc/{daemon.pid}/schedstat").read_text()
    for _ in range(1000):
        assert is_waiting(daemon.pid)
    assert pathlib.Path(f"/proc/{daemon.pid}/schedstat").read_text() == before


def test_starts_with_few_descriptors(make_daemon):
    """A start needs only a handful of descriptors, and leaves inherited ones alone."""
    inherited = os.open("/dev/null", os.O_RDONLY)
    try:
        daemon = make_daemon(pass_fds=[inherited], preexec_fn=lambda: resource.setrlimit(
            resource.RLIMIT_NOFILE, (inherited + 10, inherited + 10))).wait_until_ready()
        assert inherited in held(daemon.pid)[0]
        assert daemon.stop() == 0
    finally:
        os.close(inherited)
