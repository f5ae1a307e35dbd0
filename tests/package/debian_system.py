"""A Debian system in a directory: the content of a machine's image, with an overlay that takes all
changes."""
import contextlib
import pathlib
import shutil
import subprocess
import tempfile

from lab.virtual import images

LIMIT_SECONDS = 120
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "DEBIAN_FRONTEND": "noninteractive",
               "LC_ALL": "C.UTF-8"}


def command(*words):
    subprocess.run([str(word) for word in words], check=True, stdin=subprocess.DEVNULL)


class DebianSystem(contextlib.ExitStack):
    """A Debian system in which only the commands given to `run` execute, so units are enabled but never
    started.

    Owns: its mounts, in the mount namespace of the caller, and its directory.
    """

    def __enter__(self):
        super().__enter__()
        with contextlib.ExitStack() as on_failure:
            on_failure.callback(self.close)
            directory = pathlib.Path(self.enter_context(tempfile.TemporaryDirectory(prefix="debian-")))
            self._mount(directory, "-t", "tmpfs", "debian")
            for name in ("image", "upper", "work", "root"):
                (directory / name).mkdir()
            self._mount(directory / "image", "-o", "loop,ro,noload", images.get("uml").root)
            self.root = directory / "root"
            layers = f"lowerdir={directory}/image,upperdir={directory}/upper,workdir={directory}/work"
            self._mount(self.root, "-t", "overlay", "-o", layers, "overlay")
            self._mount(self.root / "proc", "-t", "proc", "proc")
            self._mount(self.root / "dev", "--rbind", "/dev")
            on_failure.pop_all()
        return self

    def _mount(self, where, *words):
        command("mount", *words, where)
        self.callback(command, "umount", "--lazy", where)

    def run(self, *words, check=True):
        """Runs a command inside; returns its output, including standard error."""
        done = subprocess.run(["chroot", self.root, *(str(word) for word in words)], env=ENVIRONMENT,
                              text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=LIMIT_SECONDS, check=False)
        assert not check or done.returncode == 0, f"{words}: status {done.returncode}\n{done.stdout}"
        return done.stdout

    def install(self, *packages):
        for package in packages:
            shutil.copy(package.path, self.root / "root")
        return self.run("apt-get", "install", "--yes", "--option=APT::Sandbox::User=root",
                        *(f"/root/{package.path.name}" for package in packages))

    def status(self, name):
        return self.run("dpkg-query", "--show", "--showformat=${db:Status-Status}", name, check=False)

    def exists(self, path):
        """Whether the path exists, even if it is a dangling link."""
        return self.run("sh", "-c", f"ls -d {path} 2>/dev/null", check=False) != ""

    def write(self, path, text="x\n"):
        file = self.root / path.lstrip("/")
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text, encoding="utf-8")

    def volume(self, where):
        """Mounts a file system on a disk of its own; returns its path from outside."""
        disk = self.root / "root/disk.img"
        with open(disk, "wb") as file:
            file.truncate(16 << 20)
        command("mke2fs", "-q", "-t", "ext4", disk)
        outside = self.root / where.lstrip("/")
        outside.mkdir(parents=True)
        self._mount(outside, "-o", "loop", disk)
        return outside
