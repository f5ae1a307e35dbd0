"""A server that starts from its own disk, and the appliance with its images: run inside, by server_site.py.

In the rescue system:
    server.py make DISK PERSISTENT_DISK SOURCE LINE PACKAGE...
                                   makes a server on one disk, including its packages, and a file system for
                                   the appliance's files on the other. SOURCE is a device with the system to
                                   copy; "" means the running one. LINE is the kernel's command line; if it is
                                   "", there is no boot loader
    server.py serve                runs the appliance's target until it is killed
    server.py compare              compares the restored volumes with the manifests

In the server:
    server.py pair                 starts the agent, and pairs it with the appliance
    server.py change SEED          writes files to all volumes, removes and changes others
    server.py backup KIND          backs up all volumes: full, merge or incremental; prints the outcome
    server.py verify KIND          the same; then compares each image with its snapshot, and makes a manifest
                                   of the snapshot
"""
import contextlib
import dataclasses
import json
import os
import pathlib
import random
import stat
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[3]
sys.path.insert(0, str(ROOT))

import installed  # noqa: E402
from installed import PERSISTENT, SECONDS, Agent, PersistentProtection, PersistentTarget  # noqa: E402
from lab.commands import run  # noqa: E402
from lab.images import compare_used, fsck, mounted, mounted_unreplayed  # noqa: E402
from lab.volumes import Partition, Volume  # noqa: E402
from manifests import MANIFESTS, manifest_of, write_manifest  # noqa: E402

BUILDING = pathlib.Path("/mnt")
USER, PASSWORD = "server", "of the images 1"
GROUP = "server"
TABLE = """label: gpt
size=1M, type=21686148-6449-6E6F-744E-656564454649
size={esp}M, type=U
size={boot}M
type=V
"""
# The kernel's FAT driver can't be frozen, so the ESP is mounted with a FUSE driver: see lab/fat.py.
ESP_UNIT = """[Unit]
RequiresMountsFor=/boot
Before=bekd.service
[Service]
ExecStart=/bin/sh -c 'device=$(readlink -f /dev/disk/by-label/esp) && exec fusefat -f -o \\
    blkdev,big_writes,atomic_o_trunc,rw+,fsname=$device $device /boot/efi'
[Install]
WantedBy=multi-user.target
"""
# Serves the files of the data volume.
PAGE_UNIT = """[Unit]
RequiresMountsFor=/data
[Service]
ExecStart=/usr/bin/python3 -m http.server --directory /data/www 80
[Install]
WantedBy=multi-user.target
"""


@dataclasses.dataclass(frozen=True)
class Place:
    """A volume, its place, and its mount."""

    volume: Volume
    device: str # after the name of the disk, or of the group
    is_logical: bool = False


def place(name, file_system, mebibytes, device, mount_point, *making, options="defaults"):
    volume = Volume(name, file_system, mebibytes, mount_point, fstab=options, making=making)
    return Place(volume, device, device.startswith("/"))


# In the order of their LUNs on the target. With room for two CoW files of the smallest size each.
PLACES = {one.volume.name: one for one in (
    place("root", "ext4", 2200, "/root", "/", "-b", "4096", options="errors=remount-ro"),
    place("boot", "ext4", 460, "3", "/boot", "-b", "4096"),
    place("data", "xfs", 640, "/data", "/data"),
    place("esp", "vfat", 300, "2", "/boot/efi", options="umask=0077,noauto"),
)}
# To take a snapshot of the ESP, the driver examines the FUSE process in /proc, which not every kernel allows.
# On other kernels its image is a plain copy.
ESP = "esp"
PROTECTED = [name for name in PLACES if name != ESP or pathlib.Path("/proc/self/syscall").exists()]
POISONED = (ESP, "data") # in these images, parts that were never written must not look like zeros
SWAP_MEBIBYTES = 64
# Left out of the copy of the running system, to save time: a third of it, which no test needs.
EXCLUDE_OPTIONS = " ".join(f"--exclude=./usr/{path}" for path in (
    "lib/modules/*/kernel/net", "lib/modules/*/kernel/drivers/[n-z]*", "lib/modules/*/kernel/fs/[g-w]*",
    "lib/x86_64-linux-gnu/perl", "lib/x86_64-linux-gnu/ceph", "share/perl", "lib/udev/hwdb*", "bin/fio"))


def device_of(one, disk="/dev/sda"):
    return f"/dev/{GROUP}{one.device}" if one.is_logical else f"{disk}{one.device}"


# Making a server


def make(disk, persistent_disk, source, line, *packages):
    """Makes a server: a copy of a running or stored system on new volumes, with the packages installed."""
    make_volumes(disk)
    prepare_persistent_disk(persistent_disk)
    with contextlib.ExitStack() as stack:
        tree = stack.enter_context(Partition(Volume("source", "ext4"), source).mounted("/run/source", "ro")) \
            if source else "/"
        for name in ("root", "boot", ESP, "data"):
            stack.enter_context(PARTITIONS[name].mounted(BUILDING / PLACES[name].volume.mount_point[1:]))
        run("sh", "-c", f"tar -C {tree} {EXCLUDE_OPTIONS if tree == '/' else ''} --one-file-system -c . | "
                        f"tar -C {BUILDING} -x")
        for path in ("/dev", "/proc", "/sys", "/run", str(ROOT)):
            (BUILDING / path[1:]).mkdir(parents=True, exist_ok=True)
            run("mount", "--bind", path, BUILDING / path[1:])
            stack.callback(run, "umount", BUILDING / path[1:])
        configure()
        inside("vgcfgbackup", "--quiet", GROUP) # as LVM does at each change of a group
        if line:
            make_initramfs_small()
        inside("dpkg", "--install", *packages)
        add_services()
        add_oddities()
        if line:
            make_boot_loader(disk, line)
        else:
            inside("systemctl", "enable", "console-getty")
    run("vgchange", "--quiet", "--activate", "n", GROUP)
    if not line and ESP not in PROTECTED:
        copy_esp()


def copy_esp():
    (PERSISTENT / "images").mkdir()
    run("cp", "--sparse=always", PARTITIONS[ESP].device, PERSISTENT / "images" / ESP)
    with mounted(PERSISTENT / "images" / ESP, "vfat") as tree:
        write_manifest(ESP, tree)


PARTITIONS = {}


def make_volumes(disk):
    sizes = {name: one.volume.mebibytes for name, one in PLACES.items()}
    run("sfdisk", "--quiet", disk, input=TABLE.format(**sizes))
    run("udevadm", "settle")
    run("vgcreate", "--quiet", GROUP, f"{disk}4")
    for name in ("root", "data"):
        run("lvcreate", "--quiet", "--yes", "--name", name, "--size", f"{sizes[name]}M", GROUP)
    run("lvcreate", "--quiet", "--yes", "--name", "swap", "--size", f"{SWAP_MEBIBYTES}M", GROUP)
    run("mkswap", f"/dev/{GROUP}/swap")
    for name, one in PLACES.items():
        PARTITIONS[name] = Partition(one.volume, device_of(one, disk))
        PARTITIONS[name].format()
    run("udevadm", "settle")


def prepare_persistent_disk(disk):
    run("mkfs.ext4", "-q", "-L", "kept", disk)
    PERSISTENT.mkdir(exist_ok=True)
    run("mount", disk, PERSISTENT)
    MANIFESTS.mkdir()


def configure():
    """Configures mount points and the like, and removes what only the rescue system needs."""
    lines = []
    for name, one in PLACES.items():
        uuid, options = PARTITIONS[name].uuid, one.volume.fstab
        where = f"{one.volume.mount_point} {one.volume.file_system}"
        lines.append(f"UUID={uuid} {where} {options} 0 {1 if name == 'root' else 0}")
    swap = run("blkid", "--match-tag", "UUID", "--output", "value", f"/dev/{GROUP}/swap")
    lines += [f"UUID={swap} none swap sw 0 0", f"LABEL=kept {PERSISTENT} ext4 defaults 0 2"]
    for path, text in {"etc/fstab": "".join(f"{line}\n" for line in lines), "etc/hostname": "db1\n",
                       "etc/machine-id": ""}.items():
        (BUILDING / path).write_text(text, encoding="ascii")
    (BUILDING / PERSISTENT.relative_to("/")).mkdir(exist_ok=True)
    (BUILDING / "etc/systemd/system/serial-getty@ttyS0.service").unlink(missing_ok=True) # it was masked


def make_initramfs_small():
    """Keeps the initramfs small. It is rebuilt when packages are installed and when the root is tracked,
    which takes minutes if it has what this machine doesn't need."""
    initramfs = BUILDING / "etc/initramfs-tools"
    (initramfs / "conf.d/machine").write_text("MODULES=list\nCOMPRESSLEVEL=1\n", encoding="ascii")
    (initramfs / "modules").write_text("virtio_pci\nvirtio_scsi\nsd_mod\next4\ndm_mod\n", encoding="ascii")
    for name in ("fuse", "keymap", "ntfs_3g", "thermal", "thin-provisioning-tools"):
        (BUILDING / "usr/share/initramfs-tools/hooks" / name).chmod(0o644)


def inside(*words):
    run("env", "DEBIAN_FRONTEND=noninteractive", "chroot", BUILDING, *words)


def add_services():
    for name, unit in (("esp", ESP_UNIT), ("page", PAGE_UNIT)):
        (BUILDING / f"etc/systemd/system/{name}.service").write_text(unit, encoding="ascii")
        inside("systemctl", "enable", name)
    (BUILDING / "data/www").mkdir()
    (BUILDING / "data/www/index.html").write_text("the page of the server\n", encoding="ascii")


def add_oddities():
    """Creates what a plain copy of files would lose: links, holes, owners, times, attributes, unusual
    names."""
    for top in ("srv", "data"):
        directory = BUILDING / top / "odd Ünïcode\n"
        directory.mkdir()
        (directory / "one").write_bytes(b"linked")
        os.link(directory / "one", directory / "another")
        os.symlink("one", directory / "link")
        with open(directory / "holes", "wb") as file:
            file.seek(5 << 20)
            file.write(b"behind a hole")
            file.truncate(9 << 20)
        os.mkfifo(directory / "pipe")
        os.mknod(directory / "device", stat.S_IFCHR | 0o640, os.makedev(1, 5))
        os.setxattr(directory / "one", "user.note", "of ours".encode())
        run("setfacl", "-m", "u:www-data:r,g:backup:rw", directory / "one")
        os.chown(directory / "holes", 1234, 4321)
        os.chmod(directory / "link", 0o4751)
        os.utime(directory / "holes", ns=(1, 981173106_123456789))


def make_boot_loader(disk, line):
    """Installs two boot loaders: one for BIOS, and one for UEFI at the path where it looks by default."""
    (BUILDING / "etc/default/grub").write_text(
        f'GRUB_TIMEOUT=0\nGRUB_TERMINAL=serial\nGRUB_CMDLINE_LINUX="{line}"\n', encoding="ascii")
    named = "--modules=part_gpt" # it may not know the kind of disk on which it is installed here
    inside("grub-install", "--target=i386-pc", named, disk)
    inside("grub-install", "--target=x86_64-efi", named, "--efi-directory=/boot/efi", "--removable",
           "--no-nvram")
    inside("update-grub")


# Backups


def partition_of(name):
    volume = PLACES[name].volume
    source = run("findmnt", "--noheadings", "--output", "SOURCE", volume.mount_point).strip()
    partition = Partition(volume, str(pathlib.Path(source).resolve()))
    partition.uuid = run("blkid", "-s", "UUID", "-o", "value", source).strip()
    return partition


class ServersProtection(PersistentProtection):
    """Runs the script that copies the snapshots only if the copies are going to be compared."""

    copies_snapshots = True

    def request(self, *names, **changes):
        if self.copies_snapshots:
            return super().request(*names, **changes)
        return super(PersistentProtection, self).request(*names, **changes)

    def _add_image(self, partition, options):
        return super()._add_image(partition, options | {"poisoned": partition.name in POISONED})


class AppliancesTarget(PersistentTarget):
    """A target that requires authentication to access the images."""

    def open(self, stack):
        super().open(stack)
        self.require_chap(USER, PASSWORD)


def pair():
    if not (PERSISTENT / "snapshots").exists():
        installed.certify()
    run("systemctl", "restart", "bekd")
    with installed.appliance() as client:
        assert client.pair(installed.DEVICE).is_success
        host_text = json.dumps(client.host().content)
    assert all(partition_of(name).uuid in host_text for name in PROTECTED), host_text


def change(seed):
    """Changes files on all volumes. The system itself changes enough in the root's own directories."""
    source = random.Random(seed)
    for name in PROTECTED:
        one = PLACES[name]
        top = pathlib.Path(one.volume.mount_point) / ("srv" if name == "root" else "")
        directory = top / f"written {seed}"
        directory.mkdir()
        for number in range(20):
            (directory / str(number)).write_bytes(source.randbytes(source.randrange(100_000)))
        for path in sorted(top.glob("written */*"))[::7]:
            path.unlink()
        (top / "in place").write_bytes(source.randbytes(100_000))
    os.sync()


def backup(kind):
    with AppliancesTarget() as target, installed.appliance() as client:
        return done_by(protected(client, target, copies_snapshots=False), kind)


def protected(client, target, *, copies_snapshots):
    protection = ServersProtection(client, Agent(), target, [partition_of(name) for name in PROTECTED])
    protection.copies_snapshots = copies_snapshots
    return protection


def done_by(protection, kind):
    done = protection.run(full=kind == "full", merge=kind == "merge")
    outcome = {"state": done.state, "log": done.log}
    if done.state == "finished":
        outcome |= {"types": {name: done.type(name) for name in PROTECTED},
                    "bytes": {name: done.bytes(name) for name in PROTECTED}}
    os.sync()
    return outcome


def verify(kind):
    with AppliancesTarget() as target, installed.appliance() as client:
        protection = protected(client, target, copies_snapshots=True)
        outcome = done_by(protection, kind)
        if outcome["state"] == "finished":
            outcome["blocks"] = {name: verified_blocks(protection, name) for name in PROTECTED}
    os.sync()
    return outcome


def verified_blocks(protection, name):
    """Checks an image against the snapshot; returns the number of equal blocks. The root isn't checked by
    fsck: it has files that are deleted and still open, and until a mount has cleaned them up, e2fsck reports
    errors in a bitmap."""
    partition, image = protection.partitions[name], protection.images[name]
    capture, file_system = protection.capture_of(partition), partition.volume.file_system
    if name != "root":
        fsck(image.path, file_system)
    blocks = compare_used(capture, image.path, file_system).check().blocks
    with mounted(capture, file_system) as tree:
        write_manifest(name, tree)
    return blocks


def serve():
    """Serves the images like the appliance, under the LUNs that the backups have used."""
    with AppliancesTarget() as target:
        for name in PLACES:
            target.images.append(target.serve(target.directory / name, block_size=512, thin=False))
        print("ready", flush=True)
        while True:
            time.sleep(SECONDS)


def compare():
    """How many files of each volume are unchanged; raises an error with a list of the others if there are
    any."""
    outcome = {}
    for name, one in PLACES.items():
        expected = json.loads((MANIFESTS / f"{name}.json").read_text(encoding="ascii"))
        with mounted_unreplayed(device_of(one), one.volume.file_system) as tree:
            found = manifest_of(tree)
        differ = [bytes.fromhex(path).decode(errors="replace") for path in expected.keys() | found.keys()
                  if expected.get(path) != found.get(path)]
        assert not differ, f"{name}: {differ[:20]}"
        outcome[name] = len(found)
    return outcome


def main():
    verb, *arguments = sys.argv[1:]
    verbs = {one.__name__: one for one in (make, serve, compare, pair, change, backup, verify)}
    outcome = verbs[verb](*arguments)
    if outcome is not None:
        print(json.dumps(outcome))


if __name__ == "__main__":
    main()
