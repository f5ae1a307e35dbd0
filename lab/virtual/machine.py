"""A machine with a kernel of its own: booted, reached by ssh, rebooted, and cut off from its power.

    with UmlMachine() as machine:                  # or QemuMachine
        disk = machine.disk(1 << 30)               # while it is off
        machine.start()
        machine.run("mkfs.ext4", disk.device)
        machine.cut()
        machine.start()

The checkout is to be seen inside, under its own path, and can't be written there.
"""
import contextlib
import dataclasses
import pathlib
import shlex
import subprocess
import tempfile
import time

from lab.stay import Stay
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
    """A disk besides the root's: a sparse file here, a device inside."""

    path: pathlib.Path
    device: str


def ssh_options(connecting):
    """A machine is known by its network, which nobody else is on."""
    options = {"StrictHostKeyChecking": "no", "UserKnownHostsFile": "/dev/null", "BatchMode": "yes",
               "ConnectTimeout": connecting, "ServerAliveInterval": 10, "ServerAliveCountMax": 6}
    return [word for name, value in options.items() for word in ("-o", f"{name}={value}")]


class Machine(Stay):
    """What the kinds of machines have in common.

    Owns: a directory with its disks, and an enclosure. That ends with this process unless it is `lasting`.
    Threads: one at a time; `run` and `begin` may be called by many.
    Fails: by MachineError, with the end of the console where that tells.
    """

    kind = ""           # of its image
    boot_seconds = 0    # at most
    tap = "-"           # the link to it, unless it brings its own
    address = ""
    port = 22
    probe_seconds = 2   # for an answer of a machine that may not have booted yet

    def __init__(self, memory=1024, lasting=False, directory=None):
        super().__init__()
        self.memory = memory
        self.lasting = lasting
        self.directory = directory and pathlib.Path(directory)
        self.disks = []
        self.enclosure = None

    def command(self):
        """The command that is the machine; it runs in the machine's directory."""
        raise NotImplementedError

    def device(self, number):
        """The name inside of a disk; the first is 0."""
        raise NotImplementedError

    def prepare(self):
        """Makes what `command` needs in the directory."""

    def open(self, lasting):
        images.directory().mkdir(parents=True, exist_ok=True)
        self.directory = pathlib.Path(lasting.enter_context(tempfile.TemporaryDirectory(
            prefix="run-", dir=images.directory())))
        self.take_over()
        lasting.callback(self.cut)

    def take_over(self, disks=0, enclosure=None):
        """Goes on with what is in the directory: so many disks, and the enclosure of a machine that is on."""
        self.image = images.get(self.kind)
        self.disks = [self._disk(number) for number in range(disks)]
        self.enclosure = enclosure
        self.prepare()

    def disk(self, size):
        """Another disk of so many bytes. The machine must be off."""
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
        """Switches it on. It answers when this returns."""
        if self.is_on():
            raise MachineError("the machine is on already")
        command = [str(word) for word in self.command()]
        self.enclosure = Enclosure.make(command, self.directory, self.tap, self.lasting)
        deadline = time.monotonic() + self.boot_seconds
        while not self.boot_id():
            if not self.is_on():
                raise MachineError(f"ended while it booted:\n{self.console()}")
            if time.monotonic() > deadline:
                raise MachineError(f"didn't boot within {self.boot_seconds} s:\n{self.console()}")
            time.sleep(0.2)
        return self

    def run(self, *command, check=True, timeout=RUN_SECONDS, text=True, **options):
        """Runs a command inside, words or one line for the shell: a subprocess.CompletedProcess with its exit
        status and output. With `check`, any status but 0 is a MachineError. 255 may be the connection's."""
        options = {"capture_output": True, **options}
        if "input" not in options:
            options.setdefault("stdin", subprocess.DEVNULL)
        done = subprocess.run(self.ssh(*command), text=text, timeout=timeout, check=False, **options)
        if check and done.returncode != 0:
            raise MachineError(f"{' '.join(map(str, command))}: status {done.returncode}\n"
                               f"{done.stdout}\n{done.stderr}")
        return done

    def begin(self, *command, **options):
        """Starts a command inside: the subprocess.Popen of its connection, with which it doesn't end."""
        options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.STDOUT,
                   **options}
        return subprocess.Popen(self.ssh(*command), **options)

    def put(self, source, target):
        """Copies a file of the host into the machine."""
        with open(source, "rb") as file:
            self.run(f"cat > {shlex.quote(str(target))}", stdin=file)

    def get(self, source):
        """The bytes of a file of the machine."""
        return self.run("cat", source, text=False).stdout

    def ssh(self, *command, connecting=ANSWER_SECONDS, terminal=False):
        """The command of the host that runs another inside."""
        if not self.is_on():
            raise MachineError("the machine is off")
        line = command[0] if len(command) == 1 else shlex.join(map(str, command))
        return self.enclosure.enter("ssh", "-qt" if terminal else "-q", "-i", self.image.key,
                                    "-p", str(self.port), *ssh_options(connecting),
                                    f"root@{self.address}", "--", line)

    def boot_id(self):
        """Another one each time that it boots; empty while it doesn't answer."""
        with contextlib.suppress(subprocess.TimeoutExpired, MachineError):
            return subprocess.run(self.ssh("cat", BOOT_ID, connecting=self.probe_seconds), text=True,
                                  stdin=subprocess.DEVNULL, capture_output=True, check=False,
                                  timeout=ANSWER_SECONDS).stdout.strip()
        return ""

    def reboot(self):
        """Has it shut down in order, and starts it again."""
        self.run("systemctl", "reboot", check=False)
        self._await_end()
        self.start()

    def stop(self):
        """Shuts it down in order."""
        self.run("systemctl", "poweroff", check=False)
        self._await_end()

    def cut(self):
        """Cuts the power: what hasn't reached the disks is gone. Nothing happens if it is off."""
        if self.enclosure is not None:
            self.enclosure.kill()
            self._await_end()

    def console(self):
        """The end of what its kernels have printed."""
        path = self.directory / "console"
        return path.read_bytes()[-CONSOLE_BYTES:].decode(errors="replace") if path.exists() else ""

    def _await_end(self):
        if not self.enclosure.wait(END_SECONDS):
            raise MachineError(f"didn't end within {END_SECONDS} s:\n{self.console()}")
        self.enclosure = None
