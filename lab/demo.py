"""A tour of the agent on one machine: whole backups of real volumes to real servers, each one verified.

Lines that begin with "$" are what a person would type, lines that begin with "|" are output. scripts/demo
runs it, inside lab/namespace.
"""
import contextlib
import dataclasses
import datetime
import json
import os
import pathlib
import random
import re
import shutil
import subprocess
import sys

from lab.appliance_client import DEVICE, Appliance, NoAnswer, Unreachable
from lab.backups import COW_MIB, Protection, size_of
from lab.certificates import Authority, CertificateError
from lab.certservice import HOST, CertificateService, store_device, trust
from lab.daemon import BASE, CERTIFICATES, Daemon, program, require_private_site
from lab.demo_output import PREFIX, SECONDS, StepFailed, appliance, check, run, show, show_command, show_table
from lab.https_client import BASE_URL
from lab.image_server import address_of
from lab.images import ImageError, entry_of, fsck, mounted_unreplayed, tree_hashes
from lab.progress import megabytes, shown_progress
from lab.services import ServiceError
from lab.site import DATA, FILES, WINDOWS, Site
from lab.snapshots import drop_snapshots
from lab.targets import Target
from lab.volumes import Disk, Volume
from lab.zephane import ZephaneServer

LAB = pathlib.Path("/run/lab")
STRANGER = 815
LOG_DATE = re.compile(r"^\d{4}-\d\d-\d\d (?=\d\d:)", re.MULTILINE)
VOLUMES = (DATA, FILES, WINDOWS)
# The images are poisoned, which costs their full size unless their file system can share blocks, as XFS can.
IMAGES = Volume("images", "xfs", 16384, str(LAB / "images"))
FILES = 80
LARGEST = 1 << 20
HEAD_MIB = 10 # the checksum of an image covers this much of it
TYPES = {"full": "FULL", "differential": "DIFFERENTIAL_MERGE", "incremental": "INCREMENTAL"}


@dataclasses.dataclass(frozen=True)
class Result:
    """The outcome for one volume of one backup."""

    volume: str
    transport: str
    asked: str
    run: str
    copied: int
    written: int
    seconds: float
    verified: str

    def row(self):
        return (self.volume, self.transport, self.asked, self.run, megabytes(self.copied),
                megabytes(self.written), f"{self.seconds:.2f}",
                f"{self.copied / 1e6 / max(self.seconds, 0.001):,.1f}", self.verified)


class Tour:
    """The state that the steps share."""

    def __init__(self, stack):
        self.stack = stack # undone when the tour is over
        self.daemon = Daemon(foreground=False)
        self.stack.callback(self.daemon.discard)
        self.site = None
        self.target = None
        self.protection = None
        self.first = None # the Protection whose images are on the iSCSI target
        self.results = []


def set_up_site(tour):
    """Set up a site of its own, of which nothing is left in the end"""
    authority = Authority(LAB)
    for number, name in ((DEVICE, "device"), (STRANGER, "stranger")):
        store_device(authority, number, LAB, name)
    trust(authority)
    tour.stack.enter_context(CertificateService(authority))
    tour.site = tour.stack.enter_context(Site(VOLUMES))
    tour.stack.callback(drop_snapshots) # otherwise they would keep the site busy after a failed step
    tour.stack.enter_context(Disk([IMAGES], token="images"))
    tour.target = tour.stack.enter_context(Target(directory=IMAGES.mount_point))
    show(f"services: system bus, login manager, udev, udisks2, {HOST}")
    show(f"iSCSI target: tgtd at {tour.target.portal}, {tour.target.name}")
    for partition in tour.site.disk:
        written = fill(partition)
        show(f"volume {partition.name}: {partition.volume.file_system} of {megabytes(size_of(partition))} "
             f"at {partition.volume.mount_point}, with {FILES} files of {megabytes(written)} together")


def fill(partition):
    """Creates files of all sizes, in directories; returns how many bytes were written."""
    source = random.Random(partition.name)
    total = 0
    for number in range(FILES):
        path = pathlib.Path(partition.volume.mount_point, f"folder {number % 7}", f"file {number}")
        path.parent.mkdir(exist_ok=True)
        total += path.write_bytes(source.randbytes(source.randrange(LARGEST)))
    return total


def start_daemon(tour):
    """Start the daemon on a machine new to it: it asks for a certificate"""
    show_command(["bekd"])
    tour.daemon.start()
    tour.daemon.wait_until_ready()
    show(LOG_DATE.sub("", tour.daemon.log))
    text, status = run("openssl", "x509", "-in", str(CERTIFICATES / "server.pem"), "-noout", "-subject",
                       "-issuer", "-nameopt", "oneline")
    show(text)
    check(status == 0, f"exit status {status}")
    check(f"CN = {os.uname().nodename}" in text, "the certificate isn't for this machine")


def pair(tour):
    """Pair it with the appliance whose certificate is /run/lab/device.pem"""
    appliance("pair", str(DEVICE))
    line = next((line for line in tour.daemon.log.splitlines()
                 if f"Pair request from deviceID {DEVICE} accepted" in line), None)
    check(line, "the log doesn't tell of it")
    show(LOG_DATE.sub("", line))


def refuse_strangers(_tour):
    """Ask as another appliance, and as nobody: both are refused"""
    text = appliance("--cert", f"{LAB}/stranger.pem", "--key", f"{LAB}/stranger.key", "list", status=1)
    show(text)
    check("HTTP status 401" in text, "no refusal")
    text, status = run("curl", "--silent", "--show-error", "--insecure", f"{BASE_URL}/backup")
    show(text)
    check(status == 52, f"exit status {status}, not that of an empty reply") # see curl's manual


def look_at_host(tour):
    """Ask for the machine and its volumes"""
    host = json.loads(appliance("host"))
    show(f"{host['hostname']}: {host['os']}, {host['cpus']} processors, agent {host['agentVersion']}, "
         f"snapshot driver {host['driverVersion']}")
    volumes = {volume["guid"]: volume for volume in host["volumes"]}
    missing = [partition.name for partition in tour.site.disk if partition.uuid not in volumes]
    check(not missing, f"the agent doesn't know {', '.join(missing)}")
    shown = [volumes[partition.uuid] for partition in tour.site.disk]
    show_table([("guid", "label", "type", "size", "free", "mounted at"),
                *((volume["guid"], volume["label"], volume["filesystem"], megabytes(volume["spaceTotal"]),
                   megabytes(volume["spaceFree"]), ", ".join(volume["mountpoints"])) for volume in shown)],
               numbers=(3, 4))


def set_option(tour):
    """Let the CoW file of the NTFS volume, which has to be copied, be a small one, and read it back"""
    option = f"volumes.{tour.site.disk['windows'].uuid}.cowFileSizeMiB"
    appliance("config", f"{option}={COW_MIB}")
    stored = json.loads(appliance("config"))
    check(stored == {option: COW_MIB}, f"the settings are {stored}")
    show(json.dumps(stored, indent=4))


def back_up_all(tour):
    """FULL: copy all that is in use, into images that are no file systems yet"""
    client = tour.stack.enter_context(Appliance(certificate=LAB / "device.pem", key=LAB / "device.key",
                                                authority=CERTIFICATES / "ca.crt"))
    tour.protection = Protection(client, tour.daemon, tour.target, tour.site.disk)
    back_up(tour, "full", dict.fromkeys(tour.protection.partitions, "full"))


def back_up_changes(tour):
    """INCREMENTAL: change files, and copy what has changed"""
    for partition in tour.site.disk:
        show(f"volume {partition.name}: {change(partition)}")
    back_up(tour, "incremental", dict.fromkeys(tour.protection.partitions, "incremental"))


def change(partition):
    """Changes files in several ways; returns a text that says what was done."""
    root = pathlib.Path(partition.volume.mount_point)
    (root / "new file").write_bytes(os.urandom(1 << 20))
    with open(root / "folder 1" / "file 1", "r+b") as file:
        file.write(os.urandom(1 << 16))
    (root / "folder 2" / "file 2").unlink()
    (root / "folder 3" / "file 3").rename(root / "renamed")
    return "1 file added, 1 written to, 1 removed, 1 renamed"


def repair_image(tour):
    """DIFFERENTIAL_MERGE: damage an image, ask for an INCREMENTAL, and see it mended"""
    image = tour.protection.images["data"]
    _, status = run("dd", "if=/dev/urandom", f"of={image.path}", "bs=1M", f"count={HEAD_MIB}",
                    "conv=notrunc,fsync", "status=none")
    check(status == 0, f"exit status {status}")
    try:
        tour.protection.verify("data")
    except ImageError as error:
        show(f"the image is no good any more: {str(error).partition(';')[0]}")
    else:
        raise StepFailed("nobody has noticed the damage")
    unharmed = dict.fromkeys(tour.protection.partitions, "incremental")
    back_up(tour, "incremental", {**unharmed, "data": "differential"})


def iscsi_arguments(protection):
    """The volumes and their images, as arguments of `lab/appliance backup`."""
    return ("--target", protection.target.portal, "--name", protection.target.name,
            *(word for name, image in protection.images.items()
              for word in ("--volume", f"guid={protection.partitions[name].uuid},lun={image.lun}")))


def zephane_arguments(protection):
    """The same for the second transport. The secrets are given in files."""
    words = ["--zephane", "--target", protection.target.portal]
    for name, image in protection.images.items():
        secret = LAB / f"{name}.secret"
        secret.write_text(image.secret, encoding="ascii")
        words += ["--volume", f"guid={protection.partitions[name].uuid},name={image.name},lun={image.lun},"
                              f"password-file={secret}"]
    return words


def back_up(tour, asked, expected, arguments=iscsi_arguments):
    """Runs a backup, shows its progress, and verifies its images. `expected` has the type of backup of each
    volume."""
    before = {name: image.writes() for name, image in tour.protection.images.items()}
    kind = ["--full"] if asked == "full" else []
    backup = tour.protection.started_by(
        lambda: appliance("backup", *kind, *arguments(tour.protection)).strip())
    show_command(["lab/appliance", "watch", backup.id])
    names = {partition.uuid: partition.name for partition in tour.site.disk}
    with shown_progress(names=names, prefix=PREFIX) as progress:
        backup.wait(progress=progress)
    check(backup.state == "finished", f"the backup has {backup.state}:\n{backup.log}")
    for name in expected:
        if backup.type(name) != asked:
            show_reason(backup.log, tour.site.disk[name].uuid)
        written = (tour.protection.images[name].writes() - before[name]).bytes
        tour.results.append(judge(tour.protection, backup, name, TYPES[asked], written))
    for name, kind in expected.items():
        check(backup.type(name) == kind, f"{name} has become {backup.type(name)}, not {kind}")
    check(all(result.verified == "yes" for result in tour.results), "an image isn't what the volume was")


def show_reason(log, uuid):
    """Shows the log lines that say why a volume got another type of backup than was asked for."""
    for line in log.splitlines():
        if uuid in line and re.search(r"forcing FULL|failing back|falling back|Downgrading", line):
            show(LOG_DATE.sub("", line))


def judge(protection, backup, name, asked, written):
    """Compares the image with the snapshot, and shows the outcome."""
    try:
        proof = protection.verify(name)
        show(f"image of {name}: fsck finds no error; {proof.blocks:,} used blocks and {proof.files:,} files "
             "as in the snapshot")
        verified = "yes"
    except ImageError as error:
        show(f"image of {name}: {error}")
        verified = "NO"
    return Result(name, protection.target.interface or "iscsi", asked, TYPES[backup.type(name)],
                  backup.bytes(name), written, seconds_of_copy(backup.log, protection.partitions[name].uuid),
                  verified)


def seconds_of_copy(log, uuid):
    """The time between the two log lines at the beginning and the end of a volume's copy."""
    begin, end = (datetime.datetime.fromisoformat(
        re.search(rf"^(\S+ \S+) .*{word} copying volume {uuid}", log, re.MULTILINE)[1])
        for word in ("Beginning", "Finished"))
    return (end - begin).total_seconds()


def back_up_elsewhere(tour):
    """FULL over the second transport, whose images have a secret each"""
    server = tour.stack.enter_context(ZephaneServer(directory=IMAGES.mount_point))
    show(f"server: zephaned at {server.portal}, with an nbdkit for each image")
    tour.first = tour.protection
    tour.protection = Protection(tour.protection.appliance, tour.daemon, server, [tour.site.disk["data"]])
    back_up(tour, "full", {"data": "full"}, zephane_arguments)


def restore(secret, *words):
    """Runs bek-restore, with the image's secret in its environment."""
    show_command(["bek-restore", *words])
    done = subprocess.run([program("bek-restore"), *words], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, check=False, timeout=SECONDS,
                          env=os.environ | {"BEK_RESTORE_SECRET": secret})
    show(done.stdout)
    check(done.returncode == 0, f"exit status {done.returncode}")


def bring_back_file(tour):
    """Bring a deleted file back from its image, without the agent"""
    address, secret = address_of(tour.protection.images["data"])
    lost = pathlib.Path(tour.site.disk["data"].volume.mount_point, "renamed")
    before = entry_of(lost)
    lost.unlink()
    show(f"{lost} is gone")
    restore(secret, "ls", "-l", address, "/renamed")
    restore(secret, "get", address, "/renamed", str(lost))
    check(entry_of(lost) == before, "it isn't the file that it was")
    show(f"{lost} is back: content, owner, mode and time are what they were")


def bring_back_volume(tour):
    """Write an image to a fresh partition, and compare every file"""
    partition = tour.site.disk["files"]
    address, secret = address_of(tour.first.images["files"])
    volume = Volume("fresh", mebibytes=partition.volume.mebibytes)
    fresh = tour.stack.enter_context(Disk([volume], token="fresh", directory=IMAGES.mount_point))["fresh"]
    restore(secret, "check", address)
    restore(secret, "write", address, fresh.device)
    fsck(fresh.device, "xfs")
    with mounted_unreplayed(fresh.device, "xfs") as root:
        found, expected = tree_hashes(root), tree_hashes(partition.volume.mount_point)
    check(found == expected, "some files aren't what they were")
    show(f"{fresh.device}: the checker finds no error, and all {len(found)} files are those of "
         f"{partition.volume.mount_point}")


def stop_daemon(tour):
    """Stop it by SIGTERM"""
    show_command(["kill", str(tour.daemon.pid)])
    status = tour.daemon.stop()
    show(LOG_DATE.sub("", tour.daemon.log.splitlines()[-1]))
    check(status == 0, f"exit status {status}")
    check(not tour.daemon.errors, tour.daemon.errors)
    check(tour.daemon.log.endswith("Agent daemon stopped\n"), "the log doesn't end with the stop")


STEPS = [set_up_site, start_daemon, pair, refuse_strangers, look_at_host, set_option, back_up_all,
         back_up_changes, repair_image, back_up_elsewhere, stop_daemon, bring_back_file, bring_back_volume]
FAILURES = (StepFailed, AssertionError, CertificateError, NoAnswer, OSError, ServiceError, Unreachable,
            ValueError, subprocess.SubprocessError)


def run_steps(tour):
    """Runs the steps until one fails; returns whether all succeeded."""
    for number, step in enumerate(STEPS, 1):
        print(f"\n{number}/{len(STEPS)} {step.__doc__}", flush=True)
        try:
            step(tour)
        except FAILURES as error:
            print(f"demo: step {number} failed: {step.__doc__}\n{error}", file=sys.stderr)
            return False
    return True


def show_results(results, succeeded):
    heading = ("volume", "transport", "asked for", "has run", "copied", "written", "seconds", "MB/s",
               "verified")
    rows = [heading, *(result.row() for result in results)]
    print()
    show_table(rows, prefix="", numbers=(4, 5, 6, 7))
    if succeeded:
        print("\nAfter each backup every image was what its volume had been at the snapshot.\n"
              "DIFFERENTIAL_MERGE compares all that is in use, counted as copied, and writes what differs.\n"
              f"Of the NTFS volume the snapshot driver's file of {megabytes(COW_MIB << 20)} is copied "
              "too: its file system doesn't say where it lies.")


def main():
    require_private_site()
    os.umask(0o022)
    for directory in (LAB, BASE):
        shutil.rmtree(directory, ignore_errors=True)
    print("bekd on a site of its own: $ is what one would type, | what comes of it")
    with contextlib.ExitStack() as stack:
        tour = Tour(stack)
        succeeded = run_steps(tour)
    show_results(tour.results, succeeded)
    return 0 if succeeded else 1


if __name__ == "__main__":
    sys.exit(main())
