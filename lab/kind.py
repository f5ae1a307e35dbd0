"""What the lab has to know of what a partition can hold. Each kind fills this in, in a file of its own."""
import dataclasses
from collections.abc import Callable


@dataclasses.dataclass(frozen=True)
class Format:
    """What can be made, and mounted.

    makers        by file system, named as the kernel does: the tool that makes one, with the options that
                  keep it quiet and have it write over whatever is there
    label_option  the option of these tools that a label follows; None where there are no labels
    mount         mount(device, mount_point, options, file_system), a context manager; makes the directory.
                  None where none can be mounted
    """

    makers: dict
    label_option: str | None
    mount: Callable | None


@dataclasses.dataclass(frozen=True)
class Sample:
    """A volume of a usual size that the agent's map is compared with the truth on. `options` are of the tool
    that makes it."""

    name: str
    mebibytes: int
    file_system: str
    options: tuple = ()


@dataclasses.dataclass(frozen=True)
class Seed:
    """A volume that the fuzzing of a parser begins with. It is aged, and has so many holes of a block each,
    unless kernels no longer mount what it is; its device has sectors of 512 << `sector_exponent` bytes. At
    last the image is handed to each of the `steps`."""

    name: str
    file_system: str
    mebibytes: int
    options: tuple = () # of the tool that makes it
    is_mounted: bool = True
    holes: int = 0
    sector_exponent: int = 0
    steps: tuple = ()


@dataclasses.dataclass(frozen=True)
class Kind(Format):
    """File systems that one parser of the agent reads the used blocks of.

    name          of the parser: that of its folder
    mebibytes     of a small volume
    can_freeze    whether one that is mounted can be frozen
    look          mount options that show a copy as it stands: nothing is written, no journal is replayed
    write         mount options that let a copy be written to beside its volume
    calm          mount options with which the kernel writes nothing in the background
    check         the command that looks through a device and changes nothing
    needs_replay  whether that finds fault where the journal of a frozen volume was not replayed
    truth         truth(volume) is the Truth of a device or an image, by the file system's own tool
    sleeping      sleeping(volume) is what of that the snapshot driver doesn't know to be in use: a list of
                  (offset, length) in bytes
    doubtful      doubtful(volume) is the numbers of the free blocks that the agent may take for used ones
    structures    structures(device, root) is where some structures of a mounted volume lie that it can't do
                  without: {offset: a pattern of what is said of the volume without them}
    usual         those of the samples that images like those of backups are made of
    samples       Samples
    regions       regions(image) is all that the parser may read of an image: (offset, length) in bytes
    seeds         Seeds
    is_plain      whether files are names in ASCII and content: they have no owners, links or holes, and are
                  never cut
    extents       extents(device, root, name) is where a file of a mounted volume lies: (offset, length) in
                  bytes. None where the kernel can be asked
    goes_on       whether a map may go on behind the last block of the file system, up to a whole piece of it
    tells_extents whether a file can be asked for its extents; where not, a backup copies also the files that
                  nobody needs, those of the driver and the agent

    What is in ONLY_MOUNTED is None where none can be mounted.
    """

    name: str
    mebibytes: int
    can_freeze: bool
    look: str | None
    write: str | None
    calm: str | None
    check: tuple
    needs_replay: bool
    truth: Callable
    sleeping: Callable
    doubtful: Callable
    structures: Callable | None
    usual: tuple | None
    samples: tuple
    regions: Callable
    seeds: tuple
    is_plain: bool = False
    extents: Callable | None = None
    goes_on: bool = False
    tells_extents: bool = True


ONLY_MOUNTED = ("look", "write", "calm", "structures", "usual")
