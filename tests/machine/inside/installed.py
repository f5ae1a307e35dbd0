"""An installed bekd, an appliance and its images, all in a machine: run inside, by installed_site.py.

    installed.py make DISK OTHER   makes a logical volume on one disk and a partition on the other, both in
                                   /etc/fstab, a file system for files to keep, certificates, a quiesce script
    installed.py pair              pairs the agent with the appliance; the agent must know both volumes
    installed.py host              prints the agent's answer to a request for its volumes
    installed.py change SEED       writes files to both volumes, removes and changes others
    installed.py backup KIND       backs up both volumes: full, merge or incremental. Compares the images with
                                   the snapshots; prints the outcome
    installed.py begin KIND        starts a backup whose target stops in the middle; prints "in the middle"

Images, copies of the snapshots and the appliance's certificate are on a file system of their own, and survive
a restart.
"""
import json
import os
import pathlib
import random
import re
import shutil
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[3]
sys.path.insert(0, str(ROOT))

from lab import driver  # noqa: E402
from lab.appliance_client import DEVICE, Appliance, Unreachable  # noqa: E402
from lab.backups import Protection  # noqa: E402
from lab.certificates import Authority, install  # noqa: E402
from lab.commands import run  # noqa: E402
from lab.daemon import CERTIFICATES, SCRIPTS, stored_log  # noqa: E402
from lab.logical_disk import in_whole_units  # noqa: E402
from lab.services import wait_until  # noqa: E402
from lab.targets import Target  # noqa: E402
from lab.volumes import Partition, Volume  # noqa: E402

PERSISTENT = pathlib.Path("/kept")
SCRIPT = "copy-snapshots"
# Copies each snapshot as soon as it exists, before the agent reads a block of it.
COPY_SNAPSHOTS = f"""#!/bin/sh
[ "$1" = POST ] || exit 0
for node in /dev/tolvu[0-9]*; do
    dd if=$node of={PERSISTENT}/snapshots/${{node#/dev/tolvu}}.img bs=1M iflag=direct conv=sparse status=none
done
"""
READY_SECONDS = 300 # an emulated machine that has just been started is slow
SECONDS = 1200
LOGICAL, PLAIN = "logical", "plain"
# With room for three CoW files: a power cut in the middle of a backup leaves two of them.
VOLUMES = {LOGICAL: in_whole_units(Volume(LOGICAL, "ext4", 440, "/volumes/logical", fstab="defaults")),
           PLAIN: Volume(PLAIN, "ext4", 400, "/volumes/plain", fstab="defaults")}


def partition_of(name):
    """A volume, with the device name that udisks uses."""
    volume = VOLUMES[name]
    source = run("findmnt", "--noheadings", "--output", "SOURCE", volume.mount_point).strip()
    partition = Partition(volume, str(pathlib.Path(source).resolve()))
    partition.uuid = run("blkid", "-s", "UUID", "-o", "value", source).strip()
    return partition


def make(disk, other):
    """Makes the volumes: a logical one and a plain partition, as the driver tracks them in different ways."""
    run("vgcreate", "-q", "lab", disk)
    run("lvcreate", "-q", "-y", "-n", LOGICAL, "-L", f"{VOLUMES[LOGICAL].mebibytes}M", "lab")
    run("sfdisk", "-q", other, input=f"label: gpt\nsize={VOLUMES[PLAIN].mebibytes}M\n,\n")
    run("udevadm", "settle")
    parts = sorted(path for path in pathlib.Path("/dev").glob(f"{pathlib.Path(other).name}*")
                   if str(path) != other)
    lines = []
    for name, device in ((LOGICAL, "/dev/lab/logical"), (PLAIN, parts[0])):
        partition = Partition(VOLUMES[name], str(device))
        partition.format()
        lines.append(partition.fstab_line())
    run("mkfs.ext4", "-q", parts[1])
    lines.append(f"{parts[1]} {PERSISTENT} ext4 defaults 0 2")
    with open("/etc/fstab", "a", encoding="ascii") as table:
        table.writelines(f"{line}\n" for line in lines)
    for path in (PERSISTENT, *(pathlib.Path(volume.mount_point) for volume in VOLUMES.values())):
        path.mkdir(parents=True, exist_ok=True)
    run("systemctl", "daemon-reload")
    run("mount", "--all")
    certify()
    os.sync()


def certify():
    """Does by script what an administrator does by hand: certificates, and a quiesce script."""
    (PERSISTENT / "snapshots").mkdir()
    authority = Authority(PERSISTENT / "authority")
    install(authority.agent(), authority, CERTIFICATES)
    appliance = authority.device(DEVICE)
    for name, path in (("ca.crt", authority.certificate), ("appliance.pem", appliance.certificate),
                       ("appliance.key", appliance.key)):
        shutil.copy(path, PERSISTENT / name)
    SCRIPTS.mkdir(parents=True, exist_ok=True)
    script = SCRIPTS / SCRIPT
    script.write_text(COPY_SNAPSHOTS, encoding="ascii")
    script.chmod(0o700)


def device_of(partition):
    """The driver's status of a volume's device. Its device name may have changed since it was given back."""
    return next(device for device in driver.devices()
                if pathlib.Path(device["block_device"]).resolve() == pathlib.Path(partition.device))


def tracked_by(partition):
    """How the volume is tracked, in the words of the driver's tool."""
    minor = device_of(partition)["minor"]
    line = next(line for line in run("tolvuctl", "list").splitlines() if line.split()[0] == str(minor))
    return re.search("(device-mapper|capture).*", line)[0]


class Agent:
    """The bekd that the service manager has started, with the interface of Daemon that tests use."""

    @property
    def log(self):
        return stored_log()

    @staticmethod
    def wait_for(condition, what, _seconds):
        """Waits with pauses, because the agent needs the only processor too."""
        def after_a_pause():
            time.sleep(0.3)
            return condition()
        return wait_until(after_a_pause, SECONDS, what)


class PersistentProtection(Protection):
    """A Protection whose images outlive the target."""

    @staticmethod
    def capture_of(partition):
        return PERSISTENT / "snapshots" / f"{device_of(partition)['minor']}.img"

    def request(self, *names, **changes):
        """The volumes of a request; only the first names the script, as one run of it is enough for all."""
        volumes = super().request(*names, **changes)
        volumes[0]["scriptsPrePost"] = [{"scriptname": SCRIPT, "timeout": SECONDS}]
        return volumes

    def _add_image(self, partition, options):
        path = self.target.directory / partition.name
        if not path.exists():
            return super()._add_image(partition, options)
        image = self.target.serve(path, block_size=512, thin=False)
        self.target.images.append(image)
        return image


class PersistentTarget(Target):
    @staticmethod
    def make_directory(stack, prefix, parent):
        if parent != PERSISTENT:
            return Target.make_directory(stack, prefix, parent)
        (PERSISTENT / "images").mkdir(exist_ok=True)
        return PERSISTENT / "images"

    def __init__(self):
        super().__init__(directory=PERSISTENT)


def appliance():
    """A client of the agent, returned once the agent answers."""
    client = Appliance(certificate=PERSISTENT / "appliance.pem", key=PERSISTENT / "appliance.key",
                       authority=PERSISTENT / "ca.crt", seconds=SECONDS)

    def answers():
        try:
            return client.basic_host().is_success
        except Unreachable:
            return False

    wait_until(answers, READY_SECONDS, "an agent that answers")
    return client


def pair():
    with appliance() as client:
        assert client.pair(DEVICE).is_success
        host_text = json.dumps(client.host().content)
    assert all(partition_of(name).uuid in host_text for name in VOLUMES), host_text


def host():
    with appliance() as client:
        answer = client.host()
    return {"status": answer.status, "text": str(answer.content)}


def change(seed):
    source = random.Random(seed)
    for volume in VOLUMES.values():
        root = pathlib.Path(volume.mount_point)
        directory = root / f"written {seed}"
        directory.mkdir()
        for number in range(20):
            (directory / str(number)).write_bytes(source.randbytes(source.randrange(200_000)))
        for path in sorted(root.glob("written */*"))[::7]:
            path.unlink()
        with open(root / "in place", "ab+") as file:
            file.write(source.randbytes(100_000))
    os.sync()


def protected(client, target):
    return PersistentProtection(client, Agent(), target, [partition_of(name) for name in VOLUMES])


def backup(kind):
    with PersistentTarget() as target, appliance() as client:
        protection = protected(client, target)
        done = protection.run(full=kind == "full", merge=kind == "merge")
        outcome = {"state": done.state, "log": done.log}
        if done.state == "finished":
            proof = protection.verify()
            outcome |= {"types": {name: done.type(name) for name in VOLUMES},
                        "bytes": {name: done.bytes(name) for name in VOLUMES},
                        "tracked": {name: tracked_by(protection.partitions[name]) for name in VOLUMES},
                        "blocks": proof.blocks, "files": proof.files}
    os.sync()
    return outcome


def begin(kind):
    with PersistentTarget() as target, appliance() as client:
        protection = protected(client, target)
        started = protection.start(full=kind == "full", merge=kind == "merge")
        started.wait_for_log("Beginning copying volume", SECONDS)
        target.pause()
        print("in the middle", flush=True)
        time.sleep(SECONDS)


def main():
    verb, *arguments = sys.argv[1:]
    verbs = {"make": make, "pair": pair, "host": host, "change": change, "backup": backup, "begin": begin}
    outcome = verbs[verb](*arguments)
    if outcome is not None:
        print(json.dumps(outcome))


if __name__ == "__main__":
    main()
