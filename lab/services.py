"""System services for the tests and the lab: started, awaited until ready, and ended by their PID.

Each is a context manager, to be used inside lab/namespace, where /run is private:

    with SystemBus(), LoginManager():
        ...

If a service doesn't get ready in time, or ends too early, it raises ServiceError with its output. A service
never outlives the process that started it: the kernel kills it then.
"""
import contextlib
import os
import pathlib
import shutil
import subprocess
import tempfile
import time

from lab.resources import Resource

READY_SECONDS = 20
STOP_SECONDS = 10
ROOT = pathlib.Path(__file__).resolve().parents[1]


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


class Service(Resource):
    """One process that the lab starts. Subclasses define the command, and when it is ready."""

    command = ()

    def __init__(self):
        super().__init__()
        self._process = None
        self._log = None

    def prepare(self):
        """Makes what the service needs before it starts."""

    def is_ready(self):
        raise NotImplementedError

    @property
    def pid(self):
        return self._process.pid

    @property
    def output(self):
        """The output of the service so far, on both streams."""
        self._log.seek(0)
        return self._log.read().decode(errors="replace")

    def start(self):
        self.prepare()
        self._log = tempfile.TemporaryFile()
        writer = os.open(f"/proc/self/fd/{self._log.fileno()}", os.O_WRONLY | os.O_APPEND)
        try:
            self._process = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", "--", *self.command],
                stdin=subprocess.DEVNULL, stdout=writer, stderr=writer)
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
        """Terminates the process. If it doesn't end, kills it and raises ServiceError."""
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

    def open(self, stack):
        self.start()
        stack.callback(self.stop)


def has_owner(name):
    """Whether a service owns this name on the system bus."""
    answer = subprocess.run(
        ["busctl", "--system", "call", "org.freedesktop.DBus", "/org/freedesktop/DBus",
         "org.freedesktop.DBus", "NameHasOwner", "s", name],
        capture_output=True, text=True, check=False, timeout=30)
    return answer.returncode == 0 and answer.stdout.strip() == "b true"


class SystemBus(Service):
    """The system message bus, with the policies and services of the machine's packages."""

    command = ("dbus-daemon", "--system", "--nofork", "--nopidfile", "--nosyslog")
    socket = pathlib.Path("/run/dbus/system_bus_socket")

    def prepare(self):
        self.socket.parent.mkdir(parents=True, exist_ok=True)
        self.socket.unlink(missing_ok=True)

    def is_ready(self):
        return self.socket.is_socket() and has_owner("org.freedesktop.DBus")

    def stop(self):
        super().stop()
        self.socket.unlink(missing_ok=True)


class LoginManager(Service):
    """systemd-logind; needs a running SystemBus."""

    command = ("/lib/systemd/systemd-logind",)

    def prepare(self):
        for name in ("inhibit", "seats", "users", "sessions"):
            pathlib.Path("/run/systemd", name).mkdir(parents=True, exist_ok=True)

    def is_ready(self):
        return has_owner("org.freedesktop.login1")


class UdevDaemon(Service):
    """systemd-udevd for the block devices and the private /dev of this namespace.

    Its events, its database and its control socket belong to the namespace, so it doesn't disturb the
    machine's own udev. It follows only the rules that a volume needs, those of the snapshot driver and the
    lab's own. It also sees the devices of the machine, which must not be configured a second time.
    """

    command = ("/lib/systemd/systemd-udevd",)
    rules = pathlib.Path("/usr/lib/udev/rules.d")
    local_rules = pathlib.Path("/etc/udev/rules.d")
    followed = ("50-udev-default", "60-block", "60-persistent-storage", "80-udisks2")

    def __init__(self):
        super().__init__()
        self._masks = contextlib.ExitStack()

    def prepare(self):
        pathlib.Path("/run/udev").mkdir(exist_ok=True)
        self._mask(self.rules, [self.rules / f"{name}.rules" for name in self.followed])
        self._mask(self.local_rules, [*ROOT.glob("platform/tolvubd/*.rules"), *ROOT.glob("lab/*.rules")])

    def _mask(self, directory, kept):
        """Mounts a tmpfs over a directory of rules; only the files in `kept` are visible in it."""
        contents = {path.name: path.read_bytes() for path in kept}
        directory.mkdir(parents=True, exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", directory], check=True)
        self._masks.callback(subprocess.run, ["umount", directory], check=True)
        for name, content in contents.items():
            (directory / name).write_bytes(content)

    def is_ready(self):
        return subprocess.run(["udevadm", "control", "--ping"], capture_output=True, check=False,
                              timeout=READY_SECONDS).returncode == 0

    def stop(self):
        with self._masks:
            super().stop()
        shutil.rmtree("/run/udev", ignore_errors=True)


class Udisks(Service):
    """udisksd; it needs a running SystemBus, and a UdevDaemon to know what is on a device."""

    command = ("/usr/libexec/udisks2/udisksd",)
    name = "org.freedesktop.UDisks2"

    def is_ready(self):
        return has_owner(self.name)

    def uuid_of(self, device):
        """The UUID that udisksd reports for a block device; None if it doesn't know the device."""
        path = f"/org/freedesktop/UDisks2/block_devices/{pathlib.Path(device).name}"
        answer = subprocess.run(
            ["busctl", "--system", "get-property", self.name, path, f"{self.name}.Block", "IdUUID"],
            capture_output=True, text=True, check=False, timeout=READY_SECONDS)
        return answer.stdout.strip()[3:-1] if answer.returncode == 0 else None
