"""A tracked volume on a disk with a volatile cache: whatever part of the cache a power cut leaves on the
disk, the volume is there, no synced data is lost, and the next record has all changes.

The driver's own files are on the same disk, so that a cut leaves both in the state of the same moment.
"""
import itertools
import os
import random
import time

import pytest

from cut_site import COW_MEBIBYTES, DEVICE, MOUNT, NAMES, TrackedVolume, install
from lab.commands import run
from lab.virtual.write_log import Replay, WriteLog, end_record, mark, record

pytestmark = pytest.mark.nightly
DISKS = (512 << 20, 2 << 30, 4 << 30) # for the volume, for pictures, for the record
CUTS = 2 # between each step and the next
LVM_SETTINGS = "/etc/lvm/lvmlocal.conf"
PERSISTENT_DEVICE = "/dev/lab/kept"
OF_THE_DRIVER = {"state": "/var/lib/tolvubd", "boot": "/etc/tolvubd"}
WRITING_SECONDS = 1
STEPS = ("mounted", "set-up", "to-track", "tracked", "to-change", "changed", "ended")
MOUNTED, SET_UP, TO_TRACK, TRACKED, TO_CHANGE, CHANGED, ENDED = STEPS
CALLING = (MOUNTED, TO_TRACK, TO_CHANGE) # a function of the driver follows


class RecordedVolume(TrackedVolume):
    """A volume whose disk records all writes, so that it can be returned to any earlier moment."""

    def __init__(self, machine, kind):
        super().__init__(machine, kind)
        self.disk, self.pictures, self.log = machine.disks
        self._remembered = None
        self._done = []

    def open(self, stack):
        self._empty_disks()
        stack.callback(self._end)
        # LVM must see the physical volume only once: on the recording device, not on the disk below it.
        self.machine.run(f"echo 'devices {{ global_filter = [ \"r|^{self.disk.device}$|\" ] }}' "
                         f"> {LVM_SETTINGS}")
        device = record(self.machine, self.disk, self.log)
        options = "-b 4096" if self.kind == "ext4" else ""
        self.machine.run(f"vgcreate -qy --setautoactivation n lab {device} && "
                         "lvcreate -qy -n kept -L 32m lab && "
                         f"lvcreate -qy -n data -L {self.mebibytes}m lab && "
                         f"mkfs.ext4 -q {PERSISTENT_DEVICE} && mkfs.{self.kind} -q {options} {DEVICE}")
        self.mount()

    def _empty_disks(self):
        self.machine.cut()
        for disk in self.machine.disks:
            size = disk.path.stat().st_size
            os.truncate(disk.path, 0)
            os.truncate(disk.path, size)
        self.machine.start()

    def _end(self):
        """Ends the recording; the record is on its disk when this returns."""
        self.stop_writer()
        self.machine.run(f"tolvuctl destroy 0; umount {MOUNT} {' '.join(OF_THE_DRIVER.values())} /kept; "
                         f"vgchange -qan lab; rm -f {LVM_SETTINGS}; sync")
        end_record(self.machine)
        self.machine.cut()

    def mount(self):
        """Mounts the driver's store first, as if both were on a root file system."""
        binds = (f"mkdir -p /kept/{name} {place} && mount --bind /kept/{name} {place}"
                 for name, place in OF_THE_DRIVER.items())
        self.machine.run(f"lvchange -qay lab/kept && mkdir -p /kept && mount {PERSISTENT_DEVICE} /kept && "
                         f"{' && '.join(binds)} && lvchange -qay lab/data")
        super().mount()
        self.machine.run("tolvuctl", "started")

    def play(self):
        """Takes the first snapshot and the next one, while a program writes."""
        self._note(MOUNTED)
        self.start_writer()
        self.must("setup_snapshot", 0, DEVICE, f"{MOUNT}/{NAMES[0]}", COW_MEBIBYTES)
        self._note(SET_UP)
        self.begin()
        self._remember()
        self._note(TO_TRACK)
        self.must("transition_incremental", 0)
        self._note(TRACKED)
        time.sleep(WRITING_SECONDS)
        self._note(TO_CHANGE)
        self.must("transition_snapshot", 0, f"{MOUNT}/{NAMES[1]}", COW_MEBIBYTES)
        self._note(CHANGED)
        time.sleep(WRITING_SECONDS)
        self._note(ENDED)

    def _note(self, step):
        """Marks the end of a step in the record, and writes a synced file that says the same."""
        self.machine.run(f"echo {step} > {MOUNT}/{step} && sync {MOUNT}/{step}")
        mark(self.machine, step)

    def _remember(self):
        copy = self.pictures.path.with_name("remembered.img")
        run("cp", "--sparse=always", self.pictures.path, copy)
        self._remembered = copy, self._slot, self._own

    def leave(self, replay, chance, done):
        """Makes the disk hold what a cut may leave at a moment when the steps in `done` were complete."""
        replay.copy_with_some_writes(self.disk.path, chance)
        copy, self._slot, self._own = self._remembered
        run("cp", "--sparse=always", copy, self.pictures.path)
        self.files = list(NAMES)
        self.has_picture = True
        self._done = done

    def start(self):
        """Starts the machine; checks that the volume is there with all synced data, and its device if there
        was one."""
        self.machine.start()
        self.mount()
        self.check_files()
        self.totals.rounds += 1
        self.go_on()

    def check_files(self):
        for step in self._done:
            assert self.machine.run("cat", f"{MOUNT}/{step}").stdout == f"{step}\n"


@pytest.fixture(scope="module")
def machine(new_machine):
    made = new_machine(disks=DISKS)
    install(made)
    return made


def moments(log, chance):
    """Yields (completed steps, position) for each moment of a cut."""
    for number, (step, following) in enumerate(itertools.pairwise(STEPS), 1):
        begin, end = log.position_of(step), log.position_of(following)
        positions = [position for position in log.durable_positions() if begin < position <= end]
        for position in sorted(chance.sample(positions, min(CUTS, len(positions)))):
            yield STEPS[:number], position


@pytest.mark.parametrize("kind", ("ext4", "xfs"))
def test_what_a_cut_leaves_of_a_cache(machine, kind, tmp_path):
    """One recorded run gives many cuts. Only a cut during a call of the driver may cost the tracking."""
    seed = time.time_ns()
    print(f"seed {seed}")
    chance = random.Random(seed)
    volume = RecordedVolume(machine, kind)
    with volume:
        volume.play()
    image = tmp_path / "disk.img"
    image.touch()
    os.truncate(image, DISKS[0])
    with WriteLog(volume.log.path) as log:
        replay = Replay(log, image)
        for done, position in moments(log, chance):
            replay.advance(position)
            volume.leave(replay, chance, done)
            given_up = volume.totals.given_up
            volume.start()
            assert done[-1] in CALLING or volume.totals.given_up == given_up, f"not kept after {done[-1]}"
            volume.verify_next_record()
            volume.stop_writer()
            machine.cut()
    volume.totals.title = f"{kind}, volatile cache"
    volume.totals.save()
    assert volume.totals.missed == 0
