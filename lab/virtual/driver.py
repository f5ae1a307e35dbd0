"""Installs the snapshot driver in a machine as a package would, so that it takes part in the machine's start
and shutdown."""
import pathlib

from lab.daemon import program

PLATFORM = pathlib.Path(__file__).resolve().parents[2] / "platform" / "tolvubd"
PACKAGING = PLATFORM / "packaging"
INITRAMFS = pathlib.Path("/usr/share/initramfs-tools")
UNITS = pathlib.Path("/lib/systemd/system")
ENABLED = ("tolvubd-close.service", "tolvubd-start.service")
INITRAMFS_PATH = "tolvubd-initramfs.path"


def targets():
    """{file in the checkout: path in the machine}"""
    files = {program("tolvuctl"): pathlib.Path("/usr/bin/tolvuctl"),
             PLATFORM / "59-tolvubd.rules": pathlib.Path("/lib/udev/rules.d/59-tolvubd.rules"),
             PACKAGING / "systemd-shutdown/tolvubd": pathlib.Path("/lib/systemd/system-shutdown/tolvubd")}
    files |= {path: UNITS / path.name for path in (PACKAGING / "systemd").iterdir()}
    initramfs = PACKAGING / "initramfs-tools"
    files |= {path: INITRAMFS / path.relative_to(initramfs) for path in initramfs.rglob("tolvubd")}
    return files


def install(machine):
    """Installs the driver; it takes effect at the next start."""
    for source, target in targets().items():
        machine.run("install", "-D", "-m", "755" if source.stat().st_mode & 0o100 else "644", source, target)
    has_initramfs = machine.run("test", "-e", "/usr/sbin/update-initramfs", check=False).returncode == 0
    machine.run("systemctl", "enable", *ENABLED, *([INITRAMFS_PATH] if has_initramfs else []))
