"""Volumes that are tracked across restarts of a machine: run inside, by test_restarts.py.

    tracked.py make DISK...        makes two logical volumes and a file system for copies, all in /etc/fstab
    tracked.py begin NAME...       takes a snapshot of each volume, copies it, and continues with tracking
    tracked.py write NAME...       writes to each volume
    tracked.py snapshot NAME...    takes the next snapshot of each, and copies it
    tracked.py compare NAME...     gives each back as a snapshot, and compares it with the copy
    tracked.py finish NAME...      gives each back as tracked, writes, takes the next snapshot, and compares

Prints {NAME: outcome}.
"""
import json
import os
import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT), str(ROOT / "tests" / "functional")]

from lab.commands import run  # noqa: E402
from lab.images import extents_on  # noqa: E402
from tolvubd_site import UNIT, Cow, call, must  # noqa: E402

PERSISTENT = pathlib.Path("/kept")
# The CoW file of the root is large, because an initramfs is built on the root as soon as it is tracked.
COW_MEBIBYTES = {"ext4": 48, "xfs": 48, "root": 512}
PIECE = 1 << 20
ROOT_VOLUME = "root"


class Tracked:
    """A volume by its name: "ext4" and "xfs" are logical volumes, "root" is the machine's root file
    system."""

    def __init__(self, name):
        self.name = name
        self.mount_point = pathlib.Path("/" if name == ROOT_VOLUME else f"/volumes/{name}")
        self.filesystem = "ext4" if name == ROOT_VOLUME else name
        self.minor = ("ext4", "xfs", ROOT_VOLUME).index(name)
        self.device = pathlib.Path(run("findmnt", "--noheadings", "--output", "SOURCE", self.mount_point)
                                   if name == ROOT_VOLUME else f"/dev/vg/{name}")
        self.picture = PERSISTENT / f"{name}.picture"
        self.note = PERSISTENT / f"{name}.json"

    @property
    def size(self):
        return int(run("blockdev", "--getsize64", self.device))

    def own_units(self):
        return {unit for path in self.mount_point.glob(".tolvu*")
                for begin, length in extents_on(self.device, self.filesystem, self.mount_point, path.name)
                for unit in range(begin // UNIT, -(-(begin + length) // UNIT))}

    def begin(self):
        must("setup_snapshot", self.minor, self.device, self.mount_point / ".tolvu", COW_MEBIBYTES[self.name])
        run("dd", f"if=/dev/tolvu{self.minor}", f"of={self.picture}", "bs=1M", "iflag=direct", "conv=sparse")
        self.note.write_text(json.dumps(sorted(self.own_units())), encoding="ascii")
        must("transition_incremental", self.minor)

    def write(self):
        """Creates, changes and deletes files, and changes one in place."""
        directory = self.mount_point / "written"
        directory.mkdir(exist_ok=True)
        for number in range(20):
            (directory / str(number)).write_bytes(os.urandom(30000))
        (directory / str(os.urandom(1)[0] % 20)).unlink()
        with open(self.mount_point / "in_place", "ab+") as file:
            file.write(os.urandom(100_000))
        os.sync()

    def snapshot(self):
        must("transition_snapshot", self.minor, self.mount_point / ".tolvu1", COW_MEBIBYTES[self.name])
        run("dd", f"if=/dev/tolvu{self.minor}", f"of={self.picture}", "bs=1M", "iflag=direct", "conv=sparse")
        self.note.write_text(json.dumps(sorted(self.own_units())), encoding="ascii")
        self.write()

    def compare(self):
        must("reload_snapshot", self.minor, self.device, "/.tolvu1")
        self.write()
        differ = self.differing() - set(json.loads(self.note.read_text(encoding="ascii")))
        return f"{len(differ)} units have changed" if differ else "the same"

    def finish(self):
        given = call("reload_incremental", self.minor, self.device, "/.tolvu")
        if not given:
            return f"full comparison ({os.strerror(given.error)})"
        self.write()
        must("transition_snapshot", self.minor, self.mount_point / ".tolvu1", COW_MEBIBYTES[self.name])
        recorded = set(Cow(self.mount_point / ".tolvu", self).changed_units)
        own = set(json.loads(self.note.read_text(encoding="ascii"))) | self.own_units()
        differ = self.differing() - own
        if differ - recorded:
            return f"{len(differ - recorded)} of {len(differ)} changed units are missing"
        is_tracked = differ and len(recorded) < self.size // UNIT
        return "tracked" if is_tracked else "nothing can be seen of tracking"

    def differing(self):
        """The units in which the new snapshot differs from the first one."""
        found = set()
        with open(self.picture, "rb") as before, open(f"/dev/tolvu{self.minor}", "rb") as after:
            for first in range(0, self.size // UNIT, PIECE // UNIT):
                one, other = before.read(PIECE), after.read(PIECE)
                if one != other:
                    found |= {first + at // UNIT for at in range(0, len(other), UNIT)
                              if one[at:at + UNIT] != other[at:at + UNIT]}
        return found


def make(disk, persistent_disk):
    """Makes the file systems on `disk` to be tracked; the copies of their snapshots are kept on the other
    disk."""
    run("vgcreate", "-q", "vg", disk)
    lines = []
    for name, options in (("ext4", "-b 4096"), ("xfs", "")):
        run("lvcreate", "-q", "-y", "-n", name, "-L", "400M", "vg")
        run(f"mkfs.{name}", "-q", *options.split(), f"/dev/vg/{name}")
        lines.append(f"/dev/vg/{name} /volumes/{name} {name} defaults 0 2\n")
    run("mkfs.ext4", "-q", persistent_disk)
    lines.append(f"{persistent_disk} {PERSISTENT} ext4 defaults 0 2\n")
    with open("/etc/fstab", "a", encoding="ascii") as table:
        table.writelines(lines)
    for directory in ("/volumes/ext4", "/volumes/xfs", PERSISTENT):
        pathlib.Path(directory).mkdir(parents=True, exist_ok=True)
    run("systemctl", "daemon-reload")
    subprocess.run(["mount", "--all"], check=True)


def main():
    verb, *arguments = sys.argv[1:]
    if verb == "make":
        make(*arguments)
        return
    print(json.dumps({name: getattr(Tracked(name), verb)() for name in arguments}))


if __name__ == "__main__":
    main()
