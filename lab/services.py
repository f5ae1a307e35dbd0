"""System services as the tests and the lab need them: started, awaited, and ended by their process number.

Each is a context manager, to be used inside lab/namespace, where /run is private:

    with SystemBus(), LoginManager():
        ...

A service that doesn't get ready in time, or has ended too early, raises ServiceError with what it printed.
"""
import os
import pathlib
import subprocess
import tempfile
import time

READY_SECONDS = 20
STOP_SECONDS = 10


class ServiceError(Exception):
    """A service didn't start or didn't stop as it should."""


def wait_until(condition, seconds, what):
    """Polls until `condition()` is true; returns its value."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() >= deadline:
            raise TimeoutError(f"{what}: not within {seconds} s")
        time.sleep(0.02)


class Service:
    """One process of our own. Subclasses say what to run and when it is ready."""

    command = ()

    def __init__(self):
        self._process = None
        self._log = None

    def prepare(self):
        """Makes what the service expects to find."""

    def is_ready(self):
        raise NotImplementedError

    @property
    def pid(self):
        return self._process.pid

    @property
    def output(self):
        """What the service has printed so far, both streams together."""
        self._log.seek(0)
        return self._log.read().decode(errors="replace")

    def start(self):
        self.prepare()
        self._log = tempfile.TemporaryFile()
        writer = os.open(f"/proc/self/fd/{self._log.fileno()}", os.O_WRONLY | os.O_APPEND)
        try:
            self._process = subprocess.Popen(
                self.command, stdin=subprocess.DEVNULL, stdout=writer, stderr=writer)
        finally:
            os.close(writer)
        try:
            wait_until(self._ready_or_ended, READY_SECONDS, " ".join(self.command))
            if self._process.poll() is not None:
                raise ServiceError(f"ended with {self._process.returncode}")
        except (ServiceError, TimeoutError) as error:
            text = f"{type(self).__name__}: {error}; it printed:\n{self.output}"
            self.stop()
            raise ServiceError(text) from error
        return self

    def _ready_or_ended(self):
        return self._process.poll() is not None or self.is_ready()

    def stop(self):
        """Terminates the process; one that doesn't end is killed, and that is an error."""
        if self._process is None:
            return
        process, self._process = self._process, None
        process.terminate()
        try:
            process.wait(STOP_SECONDS)
        except subprocess.TimeoutExpired as error:
            process.kill()
            process.wait()
            raise ServiceError(
                f"{type(self).__name__} ignored SIGTERM; it printed:\n{self.output}") from error
        finally:
            self._log.close()

    def __enter__(self):
        return self.start()

    def __exit__(self, *_exception):
        self.stop()


def has_owner(name):
    """Whether a service of this name is on the system bus."""
    answer = subprocess.run(
        ["busctl", "--system", "call", "org.freedesktop.DBus", "/org/freedesktop/DBus",
         "org.freedesktop.DBus", "NameHasOwner", "s", name],
        capture_output=True, text=True, check=False, timeout=30)
    return answer.returncode == 0 and answer.stdout.strip() == "b true"


class SystemBus(Service):
    """The system's message bus, with the policies and the services that the machine's packages bring."""

    command = ("dbus-daemon", "--system", "--nofork", "--nopidfile", "--nosyslog")
    socket = pathlib.Path("/run/dbus/system_bus_socket")

    def prepare(self):
        self.socket.parent.mkdir(parents=True, exist_ok=True)
        self.socket.unlink(missing_ok=True)

    def is_ready(self):
        return self.socket.is_socket() and has_owner("org.freedesktop.DBus")


class LoginManager(Service):
    """systemd-logind; needs a running SystemBus."""

    command = ("/lib/systemd/systemd-logind",)

    def prepare(self):
        for name in ("inhibit", "seats", "users", "sessions"):
            pathlib.Path("/run/systemd", name).mkdir(parents=True, exist_ok=True)

    def is_ready(self):
        return has_owner("org.freedesktop.login1")
