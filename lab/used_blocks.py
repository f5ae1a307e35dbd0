"""Which blocks of a volume are in use, by the tools of its file system; of a device or of an image."""
import re

from lab.volumes import run


class Truth:
    """What the file system's own tool says: the number of blocks, their size, and which of them are free."""

    def __init__(self, blocks, block_size, free_ranges):
        self.blocks = blocks
        self.block_size = block_size
        self.free_ranges = sorted(free_ranges) # (first, count)

    @property
    def free(self):
        """The numbers of the free blocks."""
        return {block for first, count in self.free_ranges for block in range(first, first + count)}

    def used_extents(self):
        """(offset, length) in bytes of all that isn't free, in order."""
        found = []
        first = 0
        for begin, count in [*self.free_ranges, (self.blocks, 0)]:
            if first < begin:
                found.append((first * self.block_size, (begin - first) * self.block_size))
            first = max(first, begin + count)
        return found


def ranges_in(text):
    """Ranges of numbers as the ext tools print them: 1-3, 7."""
    for first, last in re.findall(r"(\d+)(?:-(\d+))?", text):
        yield int(first), int(last or first) - int(first) + 1


def ext_truth(volume):
    text = run("dumpe2fs", volume)
    free = [found for ranges in re.findall(r"^  Free blocks: (.*)$", text, re.MULTILINE)
            for found in ranges_in(ranges)]
    return Truth(int(re.search(r"^Block count: +(\d+)", text, re.MULTILINE)[1]),
                 int(re.search(r"^Block size: +(\d+)", text, re.MULTILINE)[1]), free)


def xfs_truth(volume):
    def value(name):
        return int(run("xfs_db", "-r", "-c", "sb 0", "-c", f"p {name}", volume).split("=")[1])
    ag_blocks = value("agblocks")
    rows = re.findall(r"^ *(\d+) +(\d+) +(\d+)$",
                      run("xfs_db", "-r", "-c", "freesp -d", volume).split("from")[0], re.MULTILINE)
    free = [(int(group) * ag_blocks + int(first), int(length)) for group, first, length in rows]
    return Truth(value("dblocks"), value("blocksize"), free)


TRUTHS = {"ext4": ext_truth, "xfs": xfs_truth}


def truth_of(volume, file_system):
    return TRUTHS[file_system](volume)


def used_extents(volume, file_system):
    """(offset, length) in bytes of all that is in use, in order."""
    return truth_of(volume, file_system).used_extents()
