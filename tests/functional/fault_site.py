"""The common part of the tests of backups under faults: a site for faults, and what must hold after each
fault."""
import contextlib
import dataclasses
import os
import pathlib
import random
import shutil

from backup_site import EXT4, fill
from lab.backups import Protection
from lab.daemon import LOGS, program
from lab.services import wait_until
from lab.syscalls import Hold, Trace
from lab.targets import Target
from snapshot_site import SnapshotSite

SECONDS = 60
ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = program().parent
DATA = EXT4
MORE = dataclasses.replace(DATA, name="more", mount_point="/mnt/more")
SNAPSHOTS = ("/dev/tolvu0", "/dev/tolvu1")
RETRYING = "Sleeping, reconnecting, and retrying."
FIRST, LITTLE = 0, 5 # reads of a copy before it is held
OWN_LINES = 9 # a request to start a backup of one volume logs fewer lines on its own thread
CALL_OF_RUN = "rt_sigaction" # in the daemon, only the thread of a backup calls it

# The reasons why the first backup after a kill may fail: the snapshot that was left is mounted, is of the
# wrong kind, or takes the room that is needed.
LEFTOVERS = ("Could not destroy snapshot for ", "destroying and returning failure, current state 3",
             "is full, not enough free space to perform a backup")


def seeded():
    """A random number generator with a fixed seed, which BEKD_SEED changes."""
    seed = int(os.environ.get("BEKD_SEED", 1))
    print(f"BEKD_SEED={seed}")
    return random.Random(seed)


class FaultList:
    """The faults that a module has injected, and the outcomes of the backups. They are written to a file of
    this name beside the programs, unless that directory is read-only, as in a machine."""

    def __init__(self, name, what="faults injected"):
        self._path = BUILD / f"{name}.txt"
        self._what = what
        self._lines = []

    def note(self, fault, state):
        self._lines.append(f"{fault}: {state}\n")

    def write(self):
        text = "".join(self._lines) + f"{len(self._lines)} {self._what}\n"
        if os.access(self._path.parent, os.W_OK):
            self._path.write_text(text, encoding="utf-8")
        print(text)


class FaultSite:
    """Volumes with images on a target, and the daemon that backs them up."""

    def __init__(self, site, target, appliance, daemon):
        self.site = site
        self.target = target
        self.protection = Protection(appliance, daemon, target, [site[name] for name in site.names])
        self._changes = 0

    @property
    def daemon(self):
        return self.protection.daemon

    @daemon.setter
    def daemon(self, daemon):
        self.protection.daemon = daemon

    def change(self):
        """Changes files, so that the next backup has something to do."""
        self._changes += 1
        for name in self.site.names:
            root = self.site.mount_point(name)
            for old in root.glob("change-*"):
                shutil.rmtree(old)
            new = root / f"change-{self._changes}"
            new.mkdir()
            for part in range(4):
                fill(new, f"{name}-{self._changes}-{part}", files=3, largest=2_000_000)

    def back_up(self, **kind):
        """Runs a backup, which must succeed."""
        self.change()
        backup = self.protection.run(**kind)
        assert backup.state == "finished", backup.log
        self.protection.verify()
        return backup

    def judge(self, backup):
        """Returns the state of a backup that has ended. If it is "finished", the images must be right."""
        state = backup.state
        assert state in ("finished", "failed"), backup.log
        if state == "finished":
            self.protection.verify()
        else:
            assert all(entry["status"] == "failed" for entry in backup.status["details"]), backup.status
        return state

    def check_clean(self):
        for name in self.site.names:
            self.site.check_writable(name)
        self.site.check_clean()
        wait_until(lambda: self.target.sessions() == 0, SECONDS, "all sessions at the target ended")

    def assert_recovered(self):
        """Checks that nothing is frozen, mounted, attached or logged in, and that the next backup works."""
        self.check_clean()
        self.back_up()
        self.check_clean()

    def restart_after_kill(self, daemon):
        """Continues with a new daemon. The next backup finds what the killed daemon has left: it may fail for
        that, but only once, and cleans up. Returns the state of that backup."""
        for name in self.site.names:
            self.site.check_writable(name)
        self.daemon = daemon
        self.change()
        backup = self.protection.run()
        state = backup.state
        if state == "finished":
            self.protection.verify()
        else:
            assert any(reason in backup.log for reason in LEFTOVERS), backup.log
        return state

    def rehearse(self, calls, **kind):
        """The system calls of a backup's thread, in order."""
        return self._rehearse_all(calls, **kind)[0]

    def _rehearse_all(self, calls, **kind):
        """The same, followed by the calls of each other thread."""
        self.change()
        with Trace(self.daemon.pid, f"{calls},{CALL_OF_RUN}") as trace:
            backup = self.protection.run(**kind)
            threads = sorted(trace.lines().values(),
                             key=lambda lines: not any(line.startswith(CALL_OF_RUN) for line in lines))
        assert backup.state == "finished", backup.log
        self.check_clean()
        return threads

    def boundaries(self, texts, **kind):
        """(text, number) of the log lines of a backup's thread that contain these texts."""
        lines = [line for line in self.rehearse("write", **kind) if str(log_file()) in line]
        found = [(text, next(at for at, line in enumerate(lines, 1) if text in line)) for text in texts]
        assert found[0][1] > OWN_LINES
        return found

    def steps_of_copy(self, call, path="", **kind):
        """The numbers of the calls that a backup's thread makes on a file while it copies. The numbers count
        the thread's own calls, so they say nothing about calls that other threads make too."""
        lines = self.rehearse(f"{call},write", **kind)
        phase = " execution of the Copy Chunk Ranges phase."
        begin, end = (at for at, line in enumerate(lines) if phase in line and str(log_file()) in line)
        matching = [at for at, line in enumerate(lines) if line.startswith(f"{call}(") and path in line]
        return [number for number, at in enumerate(matching, 1) if begin < at < end]

    def packets_of_copy(self, call, **kind):
        """The numbers of the calls by which a backup sends the data that it copies. Each volume has a thread
        for that; only numbers that no other thread reaches are returned."""
        counts = sorted(sum(line.startswith(f"{call}(") for line in lines)
                        for lines in self._rehearse_all(call, **kind))
        return list(range(counts[-2] + 1, counts[-1] + 1))

    @contextlib.contextmanager
    def in_copy(self, reads=None, **kind):
        """(backup, hold) of a backup that is held after this number of reads of its first volume; by default
        after half of them."""
        steps = self.steps_of_copy("read", SNAPSHOTS[0], **kind)
        number = steps[len(steps) // 2 if reads is None else reads]
        with self.held("read", number, paths=SNAPSHOTS, **kind) as held:
            yield held

    @contextlib.contextmanager
    def held(self, call, number, *, paths=(), behind=False, **kind):
        """(backup, hold) of a backup that is held at a system call."""
        self.change()
        with Hold(self.daemon.pid, call, number, paths=paths, behind=behind) as hold:
            backup = self.protection.start(**kind)
            try:
                hold.wait()
            except TimeoutError as error:
                raise AssertionError(f"{error}\n{backup.log}") from error
            yield backup, hold


def log_file():
    return max(LOGS.glob("bek_*.log"))


@contextlib.contextmanager
def fault_site(appliance, daemon, volumes, server=Target, **options):
    """A FaultSite whose volumes have been backed up once. `options` are for the image server."""
    with SnapshotSite(volumes) as site, server(**options) as target:
        made = FaultSite(site, target, appliance, daemon)
        for name in site.names:
            fill(site.mount_point(name), name)
        made.back_up(full=True)
        yield made
