"""The kinds of file systems of the lab, one row each, and operations on a volume that depend on its kind.

    make("ext4", device, label="data")
    with mounted("ext4", device, "/mnt/data") as root:
        ...
    truth_of(device, "ext4").used_extents()

A file system without a row raises UnknownKind; none is treated like another. To add a kind, add a file beside
this one that provides what kind.py asks for, and a row here.
"""
from lab import ext, fat, hfs, ntfs, xfs
from lab.commands import run
from lab.kind import Format

KINDS = (ext.KIND, xfs.KIND, ntfs.KIND, fat.KIND, hfs.KIND)
# Other things that a partition can hold; no test looks into an image of them.
OTHERS = (Format({"swap": ("mkswap", "--force")}, "--label", mount=None),)


class UnknownKind(ValueError):
    """No row knows this file system."""


class NotMountable(ValueError):
    """The lab can't mount this file system."""


def kind_of(file_system):
    """The row of a file system whose used blocks the agent can determine."""
    return row_of(file_system, KINDS)


def row_of(file_system, rows):
    for row in rows:
        if file_system in row.makers:
            return row
    known = ", ".join(name for row in rows for name in row.makers)
    raise UnknownKind(f"{file_system!r} is no file system that is known for this; there are {known}")


def make(file_system, device, *options, label=""):
    """Makes a file system on a device or in an image, over whatever is there. The label is left out if the
    file system has none."""
    row = row_of(file_system, KINDS + OTHERS)
    labelling = (row.label_option, label) if label and row.label_option else ()
    run(*row.makers[file_system], *labelling, *options, device)


def mounted(file_system, device, mount_point, options="defaults"):
    """Mounts a device for as long as the context lasts; makes the directory, and yields it."""
    mount = row_of(file_system, KINDS + OTHERS).mount
    if mount is None:
        raise NotMountable(f"{device}: {file_system} can't be mounted")
    return mount(device, mount_point, options, file_system)


def truth_of(volume, file_system):
    """The used blocks of a device or an image, according to the file system's own tool: a Truth."""
    return kind_of(file_system).truth(volume)


def usual_samples():
    """The Samples for images like those of backups, of all kinds that can be mounted."""
    return [sample for kind in KINDS for sample in kind.usual or ()]


def freezable():
    """The file systems of these samples that can be frozen for a snapshot while they are mounted."""
    return list(dict.fromkeys(sample.file_system for sample in usual_samples()
                              if kind_of(sample.file_system).can_freeze))
