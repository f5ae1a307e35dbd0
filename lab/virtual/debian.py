"""Makes the root directory of a Debian system for a machine, from packages and few other files."""
import os
import pathlib
import shutil
import subprocess
import sys

INSIDE = pathlib.Path(__file__).with_name("inside")
LIMIT_SECONDS = 500
# A mirror may be slow or temporarily unavailable.
ATTEMPTS = 3
# The namespaces end with the tool, so its mounts and processes go too, however it ends.
ENCLOSED = ("unshare", "--mount", "--propagation", "private", "--pid", "--fork", "--kill-child",
            "--mount-proc")
LEFT_OUT = ("/usr/share/doc/*", "/usr/share/man/*", "/usr/share/locale/*", "/usr/share/info/*",
            "/usr/share/gnome/*", "/usr/share/icons/*")
# Masked, so that nothing uses the disks or the network unless a test does.
MASKED = """apt-daily.timer apt-daily-upgrade.timer dpkg-db-backup.timer e2scrub_all.timer
            e2scrub_reap.service fstrim.timer tgt.service getty@tty1.service getty-static.service
            serial-getty@ttyS0.service systemd-update-utmp.service""".split()


class BuildError(Exception):
    """An image could not be made."""


def command(*words, **options):
    """Runs a tool; if it fails, raises BuildError with the end of its output."""
    try:
        done = subprocess.run([str(word) for word in words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, errors="replace", check=False,
                              timeout=LIMIT_SECONDS, **options)
    except subprocess.TimeoutExpired as error:
        printed = (error.stdout or b"").decode(errors="replace")
        raise BuildError(f"{words[0]}: not done after {LIMIT_SECONDS} s:\n{printed[-4000:]}") from error
    if done.returncode != 0:
        raise BuildError(f"{words[0]} failed:\n{done.stdout[-4000:]}")
    return done.stdout


def release():
    """The code name of this machine's Debian release, which the lab's machines use too."""
    lines = pathlib.Path("/etc/os-release").read_text(encoding="utf-8").splitlines()
    return dict(line.split("=", 1) for line in lines if "=" in line)["VERSION_CODENAME"]


def mirrors():
    """The lines of apt's sources for this machine's own release."""
    form = "$(RELEASE) deb $(REPO_URI) $(RELEASE) $(COMPONENT)"
    text = command("apt-get", "indextargets", "--format", form, "Created-By: Packages", "Origin: Debian")
    lines = {line.split(" ", 1)[1] for line in text.splitlines() if line.startswith(release())}
    return "".join(f"{line}\n" for line in sorted(lines))


def settings():
    """The settings by which this machine's apt reaches its mirrors."""
    kept = ("Acquire::http", "Acquire::Check-", "Acquire::ForceIPv", "Acquire::Retries")
    return "".join(f"{line}\n" for line in command("apt-config", "dump").splitlines()
                   if line.startswith(kept) and "Auto-Detect" not in line)


def make_tree(tree, packages, before=()):
    """Unpacks packages into the directory `tree`, which must not exist yet. `before` are mmdebstrap hooks
    that run before the non-essential packages are installed."""
    (tree.parent / "apt.conf").write_text(settings(), encoding="utf-8")
    (tree.parent / "sources.list").write_text(mirrors(), encoding="utf-8")
    words = (*ENCLOSED, "mmdebstrap", "--mode=root", "--variant=minbase", "--format=directory",
             "--skip=check/empty", f"--include={','.join(packages)}", f"--aptopt={tree.parent}/apt.conf",
             '--aptopt=APT::Install-Recommends "false"', "--dpkgopt=force-unsafe-io",
             *(f"--dpkgopt=path-exclude={path}" for path in LEFT_OUT),
             *(f"--essential-hook={hook}" for hook in before),
             release(), tree, tree.parent / "sources.list")
    for attempt in range(1, ATTEMPTS + 1):
        try:
            command(*words, env={**os.environ, "TMPDIR": str(tree.parent)})
            return
        except BuildError as error:
            if attempt == ATTEMPTS:
                raise
            print(f"{error}\ntrying again", file=sys.stderr, flush=True)
            shutil.rmtree(tree, ignore_errors=True)


def configure(tree, root_device, public_key):
    """Allows root to log in with the key, and enables the service that sets up the address and the
    checkout."""
    ssh = tree / "root/.ssh"
    ssh.mkdir(mode=0o700, exist_ok=True)
    shutil.copy(public_key, ssh / "authorized_keys")
    for name, text in {"etc/hostname": "machine\n", "etc/machine-id": "",
                       "etc/hosts": "127.0.0.1 localhost machine\n",
                       "etc/fstab": f"{root_device} / ext4 errors=remount-ro 0 0\n"}.items():
        (tree / name).write_text(text, encoding="ascii")
    for name, where in (("lab-machine", "usr/local/sbin"), ("lab-machine.service", "etc/systemd/system"),
                        ("lab-machine.conf", "etc/ssh/sshd_config.d")):
        shutil.copy(INSIDE / name, tree / where / name)
    command("chroot", tree, "systemctl", "mask", *MASKED)
    command("chroot", tree, "systemctl", "enable", "lab-machine.service")
    command("chroot", tree, "systemctl", "set-default", "multi-user.target")


def make_file_system(tree, image, size):
    """Copies a tree into an ext4 file system in a sparse file. It has a journal, to survive power cuts."""
    with open(image, "wb") as file:
        file.truncate(size)
    command("mke2fs", "-q", "-t", "ext4", "-L", "machine", "-E", "lazy_itable_init=1,nodiscard", "-d", tree,
            image)
