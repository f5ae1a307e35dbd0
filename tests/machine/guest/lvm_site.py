"""A machine on which the agent's functional tests run, with logical volumes."""
import contextlib
import os
import pathlib
import subprocess
import sys

from lab.commands import run
from lab.logical_disk import GROUP

ROOT = pathlib.Path(__file__).resolve().parents[3]
RULES = (*ROOT.glob("platform/tolvubd/*.rules"), *ROOT.glob("lab/*.rules"))
SECONDS = 3000


@contextlib.contextmanager
def site_on(volumes_disk, files_disk):
    """Makes a volume group on one disk, and on the other a file system on /tmp for images, which are larger
    than memory."""
    with contextlib.ExitStack() as stack:
        run("vgcreate", GROUP, volumes_disk)
        stack.callback(run, "vgremove", "--yes", GROUP)
        run("mkfs.xfs", "-q", files_disk)
        run("mount", files_disk, "/tmp")
        stack.callback(run, "umount", "/tmp")
        stack.enter_context(private_etc())
        for rule in RULES:
            pathlib.Path("/etc/udev/rules.d", rule.name).write_bytes(rule.read_bytes())
        run("udevadm", "control", "--reload")
        yield


@contextlib.contextmanager
def private_etc():
    """Mounts an overlay on /etc: a mount point there is the sign that tests may write to the system's
    files."""
    changes, work = pathlib.Path("/run/etc/changes"), pathlib.Path("/run/etc/work")
    for path in (changes, work):
        path.mkdir(parents=True, exist_ok=True)
    run("mount", "-t", "overlay", "-o", f"lowerdir=/etc,upperdir={changes},workdir={work}", "etc", "/etc")
    yield
    run("umount", "/etc")


def check_functional(name, *options):
    """Runs a file of the functional tests, which must pass."""
    done = subprocess.run(
        [sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider", *options,
         ROOT / "tests/functional" / name],
        env={**os.environ, "BEKD_VOLUMES": "lvm"}, cwd=ROOT, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT, text=True, check=False, timeout=SECONDS)
    assert done.returncode == 0, done.stdout
