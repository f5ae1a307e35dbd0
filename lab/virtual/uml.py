"""Machines of Debian's user-mode Linux: processes of the host without virtualisation, up in seconds."""
from lab.virtual.enclosure import ROOT
from lab.virtual.machine import Machine


class UmlMachine(Machine):
    """A machine with one processor. Writes to its root disk go to a file of the machine's own."""

    kind = "uml"
    boot_seconds = 120
    tap = "tap0"
    address = "10.77.0.2"

    def device(self, number):
        return f"/dev/ubd{chr(ord('b') + number)}"

    def command(self):
        disks = [f"ubd{number}={disk.path.name}" for number, disk in enumerate(self.disks, 1)]
        return ["/usr/bin/linux.uml", f"mem={self.memory}M", f"ubd0=root.cow,{self.image.root}", *disks,
                "root=/dev/ubda", "rw", "con=null", "con0=null,fd:1", "ssl=null", "quiet",
                "vec0:transport=tap,ifname=tap0", "umid=uml", "uml_dir=/dev/shm/", "noreboot",
                "selinux=0", "pty.legacy_count=0", # udev probes each terminal at every start
                "lab.link=vec0", f"lab.address={self.address}/24", f"lab.checkout={ROOT}", "lab.share=hostfs"]
