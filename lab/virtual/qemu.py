"""Machines of QEMU with Debian's own kernel, for tests of features that only it has, and of the initramfs.

/dev/kvm may exist without working, so the first machine tries to boot with it. The result is stored with the
image until the host reboots.
"""
import pathlib

from lab.commands import run
from lab.virtual import images
from lab.virtual.enclosure import ROOT
from lab.virtual.machine import Machine, MachineError

HOST_BOOT = pathlib.Path("/proc/sys/kernel/random/boot_id")
PROBE_SECONDS = 60


class QemuMachine(Machine):
    """Two processors, emulated unless KVM works. Writes to the root disk go to a file of the machine's
    own."""

    kind = "qemu"
    boot_seconds = 400
    address = "127.0.0.1"
    port = 2222
    probe_seconds = 15
    accelerator = None

    def __init__(self, memory=2048, append="", **options):
        super().__init__(memory=memory, **options)
        self.append = append # added to the kernel's command line

    def device(self, number):
        return f"/dev/vd{chr(ord('b') + number)}"

    def prepare(self):
        if self.accelerator is None:
            self.accelerator = working_accelerator(self.image)
        root = self.directory / "root.qcow2"
        if not root.exists():
            run("qemu-img", "create", "-q", "-f", "qcow2", "-F", "raw", "-b", self.image.root, root)

    def command(self):
        cpu = "host" if self.accelerator == "kvm" else "max"
        return ["/usr/bin/qemu-system-x86_64", "-accel", self.accelerator, "-cpu", cpu, "-smp", 2,
                "-m", self.memory, "-nodefaults", "-no-user-config", "-no-reboot", "-display", "none",
                "-serial", "stdio", "-device", "virtio-rng-pci",
                "-netdev", f"user,id=net,restrict=on,hostfwd=tcp:{self.address}:{self.port}-:22",
                "-device", "virtio-net-pci,netdev=net,romfile=",
                "-virtfs", f"local,path={ROOT},mount_tag=checkout,security_model=none,readonly=on",
                *self.boot(),
                *(word for number, disk in enumerate(self.disks)
                  for word in self.drive(disk.path.name, "raw", f"disk{number}"))]

    def boot(self):
        """The options that define what the machine boots from."""
        return ["-kernel", self.image.kernel, "-initrd", self.image.initrd,
                "-append", f"root=/dev/vda rw quiet {kernel_line()} {self.append}",
                *self.drive("root.qcow2", "qcow2", "root")]

    def drive(self, file, form, name, device="virtio-blk-pci"):
        """The options for a disk. The host's page cache survives a power cut of the machine, so writes need
        no sync on the host."""
        return ["-drive", f"file={file},if=none,id={name},format={form},cache=unsafe,discard=unmap",
                "-device", f"{device},drive={name},serial={name}"]


def kernel_line():
    """The kernel parameters that every such machine needs, whatever boots it."""
    return ("console=ttyS0 net.ifnames=0 mitigations=off lab.link=eth0 lab.address=10.0.2.15/24 "
            f"lab.checkout={ROOT} lab.share=9p")


class ProbingMachine(QemuMachine):
    """A machine that tests whether KVM works on this host."""

    accelerator = "kvm"
    boot_seconds = PROBE_SECONDS


def working_accelerator(image):
    """"kvm" if a machine boots with it, otherwise "tcg"."""
    if not pathlib.Path("/dev/kvm").exists():
        return "tcg"
    known = image.path / f"accelerator-{HOST_BOOT.read_text(encoding='ascii').strip()}"
    with images.only_one("accelerator"):
        if not known.exists():
            known.write_text(probe(), encoding="ascii")
    return known.read_text(encoding="ascii")


def probe():
    try:
        with ProbingMachine() as machine:
            machine.start()
        return "kvm"
    except MachineError:
        return "tcg"
