"""The manifests of volumes: all properties of their files, to be compared after a restore."""
import hashlib
import json
import os
import pathlib
import stat

from installed import PERSISTENT
from lab.driver import OWN_FILES

MANIFESTS = PERSISTENT / "manifests"


def manifest_of(root):
    """All properties of each file, by its path. Access times are left out, as reading a file changes them."""
    root = pathlib.Path(root)
    own = {root / name for name in OWN_FILES}
    paths = (path for path in [root, *root.rglob("*")] if path not in own)
    return {os.fsencode(path.relative_to(root)).hex(): facts_of(path) for path in paths}


def facts_of(path):
    status = path.lstat()
    content = ""
    if stat.S_ISREG(status.st_mode):
        with open(path, "rb") as file:
            content = hashlib.file_digest(file, "sha256").hexdigest()
    elif stat.S_ISLNK(status.st_mode):
        content = os.fsencode(os.readlink(path)).hex()
    attributes = {name: os.getxattr(path, name, follow_symlinks=False).hex()
                  for name in attributes_of(path)}
    size = [] if stat.S_ISDIR(status.st_mode) else [status.st_size, status.st_blocks]
    return [status.st_mode, status.st_uid, status.st_gid, status.st_nlink, status.st_rdev, status.st_mtime_ns,
            size, content, attributes]


def attributes_of(path):
    try:
        return os.listxattr(path, follow_symlinks=False)
    except OSError: # a file system without extended attributes
        return []


def write_manifest(name, tree):
    (MANIFESTS / f"{name}.json").write_text(json.dumps(manifest_of(tree)), encoding="ascii")
