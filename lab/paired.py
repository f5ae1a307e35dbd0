"""The things that a site needs for a backup besides its services: certificates, a target and a paired agent.

    with Site() as site, Paired(site) as paired:     # inside lab/namespace
        print(paired.description())

`lab/site up --paired` starts it with the site.
"""
import os
import pathlib
import stat
import sys

from lab.appliance_client import DEVICE, Appliance
from lab.backups import size_of
from lab.certservice import HOST
from lab.daemon import BASE, CERTIFICATES, ROOT, Daemon, program
from lab.resources import Resource
from lab.services import Service
from lab.targets import Target

LAB = pathlib.Path("/run/lab")
IMAGES = LAB / "images"
LOOP_MAJOR = 7
LOOPS = 64 # the loop devices with nodes, so that mount(8) can use them to look at images

# Indented lines are commands.
DESCRIPTION = """
certificates  by {host}; the appliance's are {lab}/device.pem and device.key
target        tgtd at {portal}, {target}
agent         {program}, paired with the appliance of number {device}; its files are in {base}

image of  LUN  file
{images}
Next, a backup, and another one, which brings what has changed:

    lab/site shell lab/appliance backup --full --watch --target {portal} \\
        --name {target} --volume mount=/mnt/data
    lab/site shell lab/appliance backup --watch --target {portal} \\
        --name {target} --volume mount=/mnt/data
    lab/site shell lab/appliance logs --lines 20
    lab/site shell mkdir /mnt/image
    lab/site shell mount -o ro,noload,loop {folder}/data /mnt/image
    lab/site shell ls -la /mnt/image
    lab/site down
"""


class CertificateProgram(Service):
    """The certificate service as a process of its own, which also makes the appliance's certificate."""

    command = (sys.executable, "-B", "-m", "lab.certservice", str(LAB), "--device", str(DEVICE))

    def is_ready(self):
        return "is ready" in self.output


def make_loop_nodes():
    """Makes the nodes of further loop devices, as the kernel makes them in another /dev. mount(8) takes any
    free loop device."""
    shift = int(pathlib.Path("/sys/module/loop/parameters/max_part").read_text(encoding="ascii")).bit_length()
    for number in range(LOOPS):
        node = pathlib.Path("/dev", f"loop{number}")
        if not node.exists():
            os.mknod(node, 0o600 | stat.S_IFBLK, os.makedev(LOOP_MAJOR, number << shift))


class Paired(Resource):
    """Certificates, target and agent. Each mounted volume has an image, which is sparse at first: zeros are
    the clearest for people, and cost no memory."""

    def __init__(self, site):
        super().__init__()
        self._site = site
        self.target = Target()
        self.daemon = Daemon(foreground=False)

    def open(self, stack):
        make_loop_nodes()
        stack.enter_context(CertificateProgram())
        stack.enter_context(self.target)
        for partition in self._site.disk:
            if partition.volume.mount_point:
                self.target.add_image(partition.name, size_of(partition), poisoned=False)
        IMAGES.symlink_to(self.target.directory)
        stack.callback(IMAGES.unlink)
        stack.enter_context(self.daemon).wait_until_ready()
        self._pair()

    @staticmethod
    def _pair():
        with Appliance(certificate=LAB / "device.pem", key=LAB / "device.key",
                       authority=CERTIFICATES / "ca.crt") as appliance:
            answer = appliance.pair(DEVICE)
        if not answer.is_success:
            raise OSError(f"the agent refuses to be paired: {answer}")

    def description(self):
        """A text about what there is, and what to type next."""
        images = "".join(f"{image.name:8}  {image.lun:3}  {IMAGES / image.name}\n"
                         for image in self.target.images)
        return DESCRIPTION.format(
            host=HOST, lab=LAB, portal=self.target.portal, target=self.target.name, device=DEVICE, base=BASE,
            program=os.path.relpath(program(), ROOT), images=images, folder=IMAGES)
