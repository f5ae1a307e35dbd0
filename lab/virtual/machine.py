"""A machine with a kernel of its own: it can be booted, reached by ssh, rebooted, and have its power cut.

    with UmlMachine() as machine:                  # or QemuMachine
        disk = machine.disk(1 << 30)               # while it is off
        machine.start()
        machine.run("mkfs.ext4", disk.device)
        machine.cut()
        machine.start()

The checkout is visible inside, under its own path, and read-only there.
"""
import contextlib
import dataclasses
import pathlib
import shlex
import subprocess
import tempfile
import time

from lab.resources import Resource
from lab.virtual import images
from lab.virtual.enclosure import Enclosure

RUN_SECONDS = 120
ANSWER_SECONDS = 20
END_SECONDS = 90
CONSOLE_BYTES = 6000
BOOT_ID = "/proc/sys/kernel/random/boot_id"


class MachineError(Exception):
    """A machine didn't do what it was told."""


@dataclasses.dataclass(frozen=True)
class Disk:
    """A disk besides the root disk: a sparse file on the host, a device inside."""

    path: pathlib.Path
    device: str


def ssh_options(connecting):
    """Options for ssh: no host keys are checked, as nobody else is on the machine's network."""
    options = {"StrictHostKeyChecking": "no", "UserKnownHostsFile": "/dev/null", "BatchMode": "yes",
               "ConnectTimeout": connecting, "ServerAliveInterval": 10, "ServerAliveCountMax": 6}
    return [word for name, value in options.items() for word in ("-o", f"{name}={value}")]


class Machine(Resource):
    """The common part of the kinds of machines.

    Owns: a directory with its disks, and an Enclosure, which ends with this process unless the machine is
    `detached`.
    Threads: one thread at a time; only `run` and `begin` may be called by several threads at once.
    Fails: with MachineError, which has the end of the console's output if that helps.
    """

    kind = ""           # the kind of its image
    boot_seconds = 0    # at most
    tap = "-"           # name of the tap device, "-" if the kind has its own network
    address = ""
    port = 22
    probe_seconds = 2   # for an answer of a machine that may still be booting

    def __init__(self, memory=1024, detached=False, directory=None):
        super().__init__()
        self.memory = memory
        self.detached = detached
        self.directory = directory and pathlib.Path(directory)
        self.disks = []
        self.enclosure = None

    def command(self):
        """The command line of the process that is the machine; it runs in the machine's directory."""
        raise NotImplementedError

    def device(self, number):
        """The name of a disk inside the machine; the first disk is number 0."""
        raise NotImplementedError

    def prepare(self):
        """Makes the files in the directory that `command` needs."""

    def open(self, stack):
        images.directory().mkdir(parents=True, exist_ok=True)
        self.directory = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(
            prefix="run-", dir=images.directory())))
        self.take_over()
        stack.callback(self.cut)

    def take_over(self, disks=0, enclosure=None):
        """Takes over a machine from its directory: with this number of disks, and the enclosure if the
        machine is on."""
        self.image = images.get(self.kind)
        self.disks = [self._disk(number) for number in range(disks)]
        self.enclosure = enclosure
        self.prepare()

    def disk(self, size):
        """Adds a disk of `size` bytes. The machine must be off."""
        if self.is_on():
            raise MachineError("a disk can be added only while the machine is off")
        disk = self._disk(len(self.disks))
        with open(disk.path, "wb") as file:
            file.truncate(size)
        self.disks.append(disk)
        return disk

    def _disk(self, number):
        return Disk(self.directory / f"disk{number}.img", self.device(number))

    def is_on(self):
        return self.enclosure is not None and self.enclosure.is_running()

    def start(self):
        """Switches the machine on. It can be reached by ssh when this returns."""
        if self.is_on():
            raise MachineError("the machine is on already")
        command = [str(word) for word in self.command()]
        self.enclosure = Enclosure.make(command, self.directory, self.tap, self.detached)
        deadline = time.monotonic() + self.boot_seconds
        while not self.boot_id():
            if not self.is_on():
                raise MachineError(f"ended while it booted:\n{self.console()}")
            if time.monotonic() > deadline:
                raise MachineError(f"didn't boot within {self.boot_seconds} s:\n{self.console()}")
            time.sleep(0.2)
        return self

    def run(self, *command, check=True, timeout=RUN_SECONDS, text=True, **options):
        """Runs a command inside, given as words or as one line for the shell; returns a
        subprocess.CompletedProcess with its exit status and output. With `check`, a status other than 0
        raises MachineError. Status 255 may also mean that the connection failed."""
        options = {"capture_output": True, **options}
        if "input" not in options:
            options.setdefault("stdin", subprocess.DEVNULL)
        done = subprocess.run(self.ssh(*command), text=text, timeout=timeout, check=False, **options)
        if check and done.returncode != 0:
            raise MachineError(f"{' '.join(map(str, command))}: status {done.returncode}\n"
                               f"{done.stdout}\n{done.stderr}")
        return done

    def begin(self, *command, **options):
        """Starts a command inside; returns the subprocess.Popen of its connection. The command survives the
        connection."""
        options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.STDOUT,
                   **options}
        return subprocess.Popen(self.ssh(*command), **options)

    def put(self, source, target):
        """Copies a file from the host into the machine."""
        with open(source, "rb") as file:
            self.run(f"cat > {shlex.quote(str(target))}", stdin=file)

    def get(self, source):
        """The content of a file in the machine, as bytes."""
        return self.run("cat", source, text=False).stdout

    def ssh(self, *command, connecting=ANSWER_SECONDS, terminal=False):
        """The command line on the host that runs a command inside."""
        if not self.is_on():
            raise MachineError("the machine is off")
        line = command[0] if len(command) == 1 else shlex.join(map(str, command))
        return self.enclosure.enter("ssh", "-qt" if terminal else "-q", "-i", self.image.key,
                                    "-p", str(self.port), *ssh_options(connecting),
                                    f"root@{self.address}", "--", line)

    def boot_id(self):
        """The boot ID, which is different after each boot; empty while the machine doesn't answer."""
        with contextlib.suppress(subprocess.TimeoutExpired, MachineError):
            return subprocess.run(self.ssh("cat", BOOT_ID, connecting=self.probe_seconds), text=True,
                                  stdin=subprocess.DEVNULL, capture_output=True, check=False,
                                  timeout=ANSWER_SECONDS).stdout.strip()
        return ""

    def reboot(self):
        """Shuts the machine down cleanly, and starts it again."""
        self.run("systemctl", "reboot", check=False)
        self._await_end()
        self.start()

    def stop(self):
        """Shuts the machine down cleanly."""
        self.run("systemctl", "poweroff", check=False)
        self._await_end()

    def cut(self):
        """Cuts the power: data that hasn't reached the disks is lost. Does nothing if the machine is off."""
        if self.enclosure is not None:
            self.enclosure.kill()
            self._await_end()

    def console(self):
        """The end of what the machine's kernels have printed."""
        path = self.directory / "console"
        return path.read_bytes()[-CONSOLE_BYTES:].decode(errors="replace") if path.exists() else ""

    def _await_end(self):
        if not self.enclosure.wait(END_SECONDS):
            raise MachineError(f"didn't end within {END_SECONDS} s:\n{self.console()}")
        self.enclosure = None
