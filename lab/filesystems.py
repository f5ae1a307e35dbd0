"""The kinds of file systems of the lab, one row each, and what is done with a volume by its kind.

    make("ext4", device, label="data")
    with mounted("ext4", device, "/mnt/data") as root:
        ...
    truth_of(device, "ext4").used_extents()

A file system that no row is for is an UnknownKind; none is treated as if it were another. A new kind is a
file beside this one, which says what kind.py asks for, and a row here.
"""
from lab import ext, fat, hfs, ntfs, xfs
from lab.commands import run
from lab.kind import Format

KINDS = (ext.KIND, xfs.KIND, ntfs.KIND, fat.KIND, hfs.KIND)
# What else can be on a partition; no image of it is ever looked into.
OTHERS = (Format({"swap": ("mkswap", "--force")}, "--label", mount=None),)


class UnknownKind(ValueError):
    """There is no row for a file system."""


class NotMountable(ValueError):
    """Nothing here mounts such a file system."""


def kind_of(file_system):
    """The row of a file system that the agent knows the used blocks of."""
    return row_of(file_system, KINDS)


def row_of(file_system, rows):
    for row in rows:
        if file_system in row.makers:
            return row
    known = ", ".join(name for row in rows for name in row.makers)
    raise UnknownKind(f"{file_system!r} is no file system that is known for this; there are {known}")


def make(file_system, device, *options, label=""):
    """Makes a file system on a device or in an image; whatever is there is gone. The label is left out where
    there are none."""
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
    """What the file system's own tool says of the used blocks of a device or an image: a Truth."""
    return kind_of(file_system).truth(volume)


def usual_samples():
    """What images like those of backups are made of: the Samples for it of all kinds that can be mounted."""
    return [sample for kind in KINDS for sample in kind.usual or ()]


def freezable():
    """The file systems of these samples that a snapshot can be taken of while they are in use."""
    return list(dict.fromkeys(sample.file_system for sample in usual_samples()
                              if kind_of(sample.file_system).can_freeze))
