"""The common part of the tests of bek-restore: the program, addresses of images, and trees with everything a
file system can store."""
import contextlib
import hashlib
import os
import pathlib
import socket
import stat
import struct
import subprocess

from lab.daemon import program
from lab.driver import OWN_FILES

SECONDS = 300
MIB = 1 << 20
SECRET = "BEK_RESTORE_SECRET"
ACCESS_LIST = "system.posix_acl_access"


def begin(*arguments, secret=None, **options):
    """Starts the program without a terminal, so that it can't prompt for anything."""
    environment = os.environ | ({SECRET: secret} if secret is not None else {})
    return subprocess.Popen([program("bek-restore"), *map(str, arguments)], stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=environment,
                            start_new_session=True, **options)


def ended(process):
    """Waits for a program; returns its exit status and its output on both streams."""
    out, errors = process.communicate(timeout=SECONDS)
    return subprocess.CompletedProcess(process.args, process.returncode, out, errors)


def call(*arguments, **options):
    return ended(begin(*arguments, **options))


def restore(*arguments, **options):
    """Runs a call that must succeed; returns its output."""
    done = call(*arguments, **options)
    assert done.returncode == 0, done.stderr
    return done.stdout


def refusal(*arguments, status=1, **options):
    """Runs a call that must fail with this status; returns the error text."""
    done = call(*arguments, **options)
    assert (done.returncode, done.stdout) == (status, ""), (done.stdout, done.stderr)
    return done.stderr


def access_list():
    """An ACL in the kernel's format: user 1234 may read, besides the owner."""
    entries = ((1, 6, -1), (2, 4, 1234), (4, 4, -1), (16, 4, -1), (32, 0, -1))
    return struct.pack("<I", 2) + b"".join(struct.pack("<HHi", *entry) for entry in entries)


def populate(root):
    """Creates everything that a Linux tree can have besides plain files."""
    root = pathlib.Path(root) / "everything"
    root.mkdir()
    with open(root / "sparse", "wb") as file:
        file.truncate(40 * MIB)
        os.pwrite(file.fileno(), b"in the middle", 17 * MIB)
    (root / "zeros").write_bytes(bytes(3 * MIB))
    (root / "one").write_text("a file of two names")
    os.link(root / "one", root / "other")
    os.symlink("/etc/passwd", root / "link")
    os.symlink("n" * 200, root / "long link")
    os.mkfifo(root / "pipe", 0o600)
    os.mknod(root / "null", 0o666 | stat.S_IFCHR, os.makedev(1, 3))
    socket.socket(socket.AF_UNIX).bind(os.path.relpath(root / "socket"))
    (root / "ünï\ncode \x01").write_text("of an odd name")
    (root / "owned").write_text("by others")
    os.chown(root / "owned", 1234, 5678)
    (root / "owned").chmod(0o4751)
    os.setxattr(root / "owned", "user.note", b"\x00of bytes")
    with contextlib.suppress(OSError): # not every kind of file system supports these
        os.setxattr(root / "owned", "trusted.note", b"t" * 900)
        os.setxattr(root / "owned", ACCESS_LIST, access_list())
    (root / "shut").mkdir(mode=0o1700)
    os.utime(root / "shut", ns=(1, 946684799_123456789))
    os.utime(root / "one", ns=(1, 1))


def attributes_of(path):
    try:
        return {name: os.getxattr(path, name, follow_symlinks=False)
                for name in os.listxattr(path, follow_symlinks=False)}
    except OSError: # a file system without extended attributes
        return {}


def content_of(path, status):
    if stat.S_ISREG(status.st_mode):
        with open(path, "rb") as file:
            return hashlib.file_digest(file, "sha256").hexdigest()
    return os.readlink(path) if stat.S_ISLNK(status.st_mode) else status.st_rdev


def manifest(root):
    """All properties of the files of a tree, by relative path, except the driver's and the agent's files."""
    found = {}
    names = {} # the names of each inode
    root = os.fsencode(root)
    own = {os.path.join(root, os.fsencode(name)) for name in OWN_FILES}
    for parent, directories, files in os.walk(root):
        for name in sorted(directories + files):
            path = os.path.join(parent, name)
            if path in own:
                continue
            status = os.lstat(path)
            is_directory = stat.S_ISDIR(status.st_mode)
            first = names.setdefault(status.st_ino, path)
            found[os.path.relpath(path, root)] = (
                stat.filemode(status.st_mode), status.st_uid, status.st_gid, status.st_mtime_ns,
                None if is_directory else (status.st_size, status.st_blocks), attributes_of(path),
                None if is_directory else content_of(path, status), os.path.relpath(first, root))
    assert found
    return found
