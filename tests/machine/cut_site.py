"""A machine with a tracked volume that may lose power at any moment, and checks of what must be true
afterwards."""
import contextlib
import json
import pathlib
import struct
import subprocess
import time

from lab.resources import Resource

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build" / "release"
PARTS = ROOT / "platform" / "tolvubd"
INSIDE = pathlib.Path(__file__).with_name("inside")
TOTALS_FILE = BUILD / "cuts.txt"
UNIT = 4096
PIECE = 1 << 20
MEBIBYTES = 208         # of the volume: a new CoW file must fit beside two old ones; XFS needs 300 MiB
XFS_MEBIBYTES = 320
COW_MEBIBYTES = 40
EXISTING_FILES = 16     # as in inside/busy.py
WRITABLE_SECONDS = 12
DEVICE = "/dev/lab/data"
MOUNT = "/mnt"
NAMES = (".tolvu", ".tolvu1")
TRACKING, SNAPSHOT = 2, 3
UNITS = ("tolvubd-close.service", "tolvubd-start.service")


def install(machine):
    """Installs the driver where a package would put it."""
    system = "/lib/systemd"
    machine.run(f"install {BUILD}/tolvuctl /usr/bin/ && install -m 644 {PARTS}/59-tolvubd.rules "
                f"/lib/udev/rules.d/ && cd {PARTS}/packaging && install systemd-shutdown/tolvubd "
                f"{system}/system-shutdown/ && install -m 644 systemd/tolvubd-* {system}/system/ && "
                f"systemctl -q enable {' '.join(UNITS)} && udevadm control --reload && sync")


class CutTotals:
    """The totals of many power cuts."""

    def __init__(self, title):
        self.title = title
        self.rounds = self.kept = self.given_up = 0
        self.differing = self.reported = self.missed = self.equal = 0

    def add(self, differing, recorded):
        self.differing += len(differing)
        self.reported += len(recorded)
        self.missed += len(differing - recorded)
        self.equal += len(recorded - differing)

    def save(self):
        line = (f"{self.title}: {self.rounds} cuts, {self.kept} kept, {self.given_up} given up; units: "
                f"{self.differing} differ, {self.reported} reported, {self.missed} missed, "
                f"{self.equal} reported but equal")
        print(line)
        with open(TOTALS_FILE, "a", encoding="utf-8") as file:
            file.write(line + "\n")


class TrackedVolume(Resource):
    """A logical volume on the machine's first disk, with a program that writes to it. Copies ("pictures") of
    its snapshots go to the second disk, where the host can read them even if the machine fails."""

    def __init__(self, machine, kind):
        super().__init__()
        self.machine = machine
        self.kind = kind
        self.totals = CutTotals(kind)
        self.mebibytes = XFS_MEBIBYTES if kind == "xfs" else MEBIBYTES
        self.size = self.mebibytes << 20
        self.files = list(NAMES)
        self._slot = 0
        self._last = self._number = self._first_file = 0
        self.has_picture = False
        self._writer = None
        self._own = set()

    def open(self, stack):
        disk = self.machine.disks[0].device
        options = "-b 4096" if self.kind.startswith("ext") else ""
        self.machine.run(f"vgcreate -qy lab {disk} && lvcreate -qy -n data -L {self.mebibytes}m lab && "
                         f"mkfs.{self.kind} -q {options} {DEVICE}")
        stack.callback(self.forget)
        stack.callback(self.totals.save) # saved even if the test was broken off
        self.mount()
        self.set_up()

    def forget(self):
        self.stop_writer()
        if not self.machine.is_on():
            self.machine.start()
        self.machine.run(f"mountpoint -q {MOUNT} && for i in 0 1; do tolvuctl destroy $i; done; "
                         f"tolvuctl cleanup; umount {MOUNT}; vgremove -qy lab; wipefs -qa "
                         f"{self.machine.disks[0].device}", check=False)

    def look(self, *words):
        return json.loads(self.machine.run("env", f"BEKD_BUILD={BUILD}", "PYTHONDONTWRITEBYTECODE=1",
                                           "/usr/bin/python3", INSIDE / "look.py", *words).stdout)

    def call(self, function, *arguments):
        """Calls a function of the driver; returns whether it succeeded."""
        return self.machine.run(*self.command(function, *arguments), check=False).returncode == 0

    @staticmethod
    def command(function, *arguments):
        return [BUILD / "TolvubdCall", function, *arguments]

    def must(self, function, *arguments):
        done = self.machine.run(*self.command(function, *arguments), check=False)
        assert done.returncode == 0, f"{function}: {done.stdout}{done.stderr}{self.facts()}"

    def facts(self):
        """Facts that may explain why a call of the driver has failed."""
        return self.machine.run(f"df -B1M {MOUNT}; ls -la {MOUNT}/.tolvu*; dmsetup status; "
                                "journalctl -qb -n 40 -o cat | grep -v vector", check=False).stdout

    def mount(self):
        self.machine.run(f"for i in $(seq 100); do test -b {DEVICE} && break; sleep 0.1; done; "
                         f"udevadm settle; timeout 60 mount {DEVICE} {MOUNT}")

    # The writing program.

    def start_writer(self):
        self._writer = self.machine.begin("/usr/bin/python3", "-B", INSIDE / "busy.py", MOUNT,
                                          str(self._number), text=True, stdin=subprocess.PIPE)
        self._first_file = self._last = int(self._writer.stdout.readline())

    def stop_writer(self):
        """Ends the program, unless it has ended with the machine, and notes what it printed: whatever it
        printed, it had done."""
        if self._writer is None:
            return
        said = self._writer.communicate(timeout=30)[0].split()
        self._last = max([self._last, *(int(word) for word in said if word.isdigit())])
        assert not [word for word in said if not word.isdigit()], said
        self._number = self._last + 2
        self._writer = None

    def check_files(self):
        """Checks that no file that had reached the disk is lost. The program may have been about to remove
        the oldest files."""
        first = max(self._first_file, self._last - EXISTING_FILES + 3)
        assert self.look("files", MOUNT, first, self._last) == []

    # Pictures and records.

    def set_up(self):
        """Takes the first snapshot, and a picture of it."""
        self.must("setup_snapshot", 0, DEVICE, f"{MOUNT}/{NAMES[0]}", COW_MEBIBYTES)
        self.begin()

    def begin(self):
        self.files = list(NAMES)
        self.take_picture()
        self._own = self.own_units()

    def take_picture(self):
        self._slot = 1 - self._slot
        self.copy_snapshot(self._slot)
        self.has_picture = True

    def copy_snapshot(self, slot):
        self.machine.run(f"dd if=/dev/tolvu0 of={self.machine.disks[1].device} bs=1M iflag=direct "
                         f"oflag=direct seek={slot * self.mebibytes} status=none conv=notrunc")

    def differing(self, one, other):
        """The units in which two pictures differ."""
        found = set()
        with open(self.machine.disks[1].path, "rb") as file:
            for begin in range(0, self.size, PIECE):
                pieces = []
                for slot in (one, other):
                    file.seek(slot * self.size + begin)
                    pieces.append(file.read(PIECE).ljust(PIECE, b"\0"))
                if pieces[0] != pieces[1]:
                    found |= {(begin + at) // UNIT for at in range(0, PIECE, UNIT)
                              if pieces[0][at:at + UNIT] != pieces[1][at:at + UNIT]}
        return found

    def own_units(self):
        """The units of the driver's own files, which no backup copies."""
        return {unit for begin, length in self.look("own", DEVICE, self.kind, MOUNT)
                for unit in range(begin // UNIT, -(-(begin + length) // UNIT))}

    def recorded_units(self, name):
        """The units that the record in a CoW file names."""
        count = self.size // UNIT
        data = self.machine.run("head", "-c", UNIT + 8 * count, f"{MOUNT}/{name}", text=False).stdout
        words = struct.unpack_from(f"<{count}Q", data, UNIT)
        return {unit for unit, word in enumerate(words) if word}

    def check_record(self):
        """Checks that the next snapshot's record has all units that have changed since the last picture."""
        self.must("transition_snapshot", 0, f"{MOUNT}/{self.files[1]}", COW_MEBIBYTES)
        self.compare_record()

    def compare_record(self):
        closed, current = self.files
        self.take_picture()
        own = self.own_units()
        differing = self.differing(0, 1) - self._own - own
        recorded = self.recorded_units(closed)
        self.totals.add(differing, recorded - self._own - own)
        missing = differing - recorded
        assert not missing, f"{len(missing)} of {len(differing)} changed units are missing"
        self.files = [current, closed]
        self._own |= own

    # Rounds.

    def state(self):
        """The state of the device; None if there is none, or if it has an error."""
        found = [device for device in self.look("devices") if device["minor"] == 0]
        return found[0]["state"] if found and found[0]["error"] == 0 else None

    def come_back(self):
        """Starts the machine after a power cut, and checks that the volume is there, that no data that had
        reached the disk is lost, and that the driver gives back either a device that can be trusted or
        none."""
        self.stop_writer()
        self.machine.start()
        begin = time.monotonic()
        self.mount()
        self.machine.run(f"date > {MOUNT}/alive && sync -f {MOUNT}/alive", timeout=WRITABLE_SECONDS)
        assert time.monotonic() - begin < 30
        self.check_files()
        self.totals.rounds += 1
        self.go_on()

    def go_on(self):
        name = self.given_back()
        if name is None:
            self.totals.given_up += 1
            self.start_anew()
            return
        self.totals.kept += 1
        is_snapshot = self.state() == SNAPSHOT
        if is_snapshot and not self.has_picture:
            self.begin()
        elif is_snapshot and name == self.files[1]: # the call had completed when the power was cut
            self.compare_record()

    def given_back(self):
        """The CoW file of the device that the driver has given back, or None."""
        for name in self.files:
            for function in ("reload_incremental", "reload_snapshot"):
                if self.call(function, 0, DEVICE, f"/{name}"):
                    return name
        return None

    def destroy(self):
        self.machine.run("tolvuctl destroy 0; tolvuctl cleanup", check=False)
        self.has_picture = False

    def start_anew(self):
        """Tracks the volume anew, as the agent does when it has to compare everything."""
        self.destroy()
        self.set_up()

    def verify_next_record(self):
        """Checks that the next record is right, whatever happened before, while the program writes."""
        self.start_writer()
        if self.state() == SNAPSHOT:
            self.check_snapshot()
            self.must("transition_incremental", 0)
        time.sleep(0.5)
        self.check_record()

    def check_snapshot(self):
        """Checks that the snapshot still shows its moment."""
        self.copy_snapshot(2)
        wrong = self.differing(self._slot, 2) - self._own - self.own_units()
        assert not wrong, f"{len(wrong)} units of the snapshot aren't those of its moment"


@contextlib.contextmanager
def stopped_at(volume, step, function, *arguments):
    """A call of the driver that is held before one of its steps."""
    name, number = step
    process = volume.machine.begin("strace", "-f", "-o", "/dev/null", "-e", f"trace={name}",
                                   "-e", f"inject={name}:delay_enter=60000000:when={number}",
                                   *volume.command(function, *arguments))
    try:
        yield process
    finally:
        with contextlib.suppress(subprocess.TimeoutExpired):
            process.communicate(timeout=10)
