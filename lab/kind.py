"""The facts that the lab needs about the things that a partition can hold. Each kind has its own file."""
import dataclasses
from collections.abc import Callable


@dataclasses.dataclass(frozen=True)
class Format:
    """Something that a partition can be formatted with, and that can perhaps be mounted.

    makers        by file system, under the kernel's name: the tool that makes it, with options that keep it
                  quiet and make it overwrite whatever is there
    label_option  the tools' option for a label; None if there are no labels
    mount         mount(device, mount_point, options, file_system), a context manager that makes the
                  directory. None if it can't be mounted
    """

    makers: dict
    label_option: str | None
    mount: Callable | None


@dataclasses.dataclass(frozen=True)
class Sample:
    """A volume of a usual size, on which the agent's map is compared with the truth. `options` are for the
    tool that makes it."""

    name: str
    mebibytes: int
    file_system: str
    options: tuple = ()


@dataclasses.dataclass(frozen=True)
class Seed:
    """A volume that the fuzzing of a parser starts from. It is aged and gets `holes` holes of one block each,
    unless `is_mounted` is false because current kernels can't mount it. Its device has sectors of 512 <<
    `sector_exponent` bytes. At the end, each of the `steps` is called with the image."""

    name: str
    file_system: str
    mebibytes: int
    options: tuple = () # for the tool that makes it
    is_mounted: bool = True
    holes: int = 0
    sector_exponent: int = 0
    steps: tuple = ()


@dataclasses.dataclass(frozen=True)
class Kind(Format):
    """The file systems whose used blocks one parser of the agent reads.

    name                     the name of the parser, which is that of its folder
    mebibytes                the size of a small volume
    can_freeze               whether a mounted volume can be frozen
    read_only_options        mount options that show a copy as it is: nothing is written, no journal is
                             replayed
    writable_options         mount options that make a copy writable while its volume is mounted too
    quiet_options            mount options with which the kernel writes nothing in the background
    check                    the command that checks a device without changing it
    needs_replay             whether that command reports errors if the journal of a frozen volume wasn't
                             replayed
    truth                    truth(volume) is the Truth of a device or an image, by the file system's own tool
    unknown_to_driver        unknown_to_driver(volume) is the part of it that the snapshot driver doesn't know
                             to be in use: a list of (offset, length) in bytes
    may_be_reported_used     may_be_reported_used(volume) is the set of the numbers of the free blocks that
                             the agent may report as used
    structures               structures(device, root) has the offsets of some structures that a mounted volume
                             can't do without: {offset: a pattern of the error that appears when the structure
                             is missing}
    usual                    the samples for images like those of backups
    samples                  Samples
    regions                  regions(image) is all that the parser may read of an image: (offset, length) in
                             bytes
    seeds                    Seeds
    is_plain                 whether files have only an ASCII name and content: no owners, links or holes;
                             they are never truncated
    extents                  extents(device, root, name) is the list of the extents of a file of a mounted
                             volume: (offset, length) in bytes. None if the kernel can report them
    map_exceeds_file_system  whether a map may extend beyond the last block of the file system, to the end of
                             a piece
    has_file_extents         whether the extents of a file can be queried; if not, a backup also copies the
                             files that no restore needs, those of the driver and the agent

    The members in ONLY_MOUNTED are None if no file system of the kind can be mounted.
    """

    name: str
    mebibytes: int
    can_freeze: bool
    read_only_options: str | None
    writable_options: str | None
    quiet_options: str | None
    check: tuple
    needs_replay: bool
    truth: Callable
    unknown_to_driver: Callable
    may_be_reported_used: Callable
    structures: Callable | None
    usual: tuple | None
    samples: tuple
    regions: Callable
    seeds: tuple
    is_plain: bool = False
    extents: Callable | None = None
    map_exceeds_file_system: bool = False
    has_file_extents: bool = True


ONLY_MOUNTED = ("read_only_options", "writable_options", "quiet_options", "structures", "usual")
