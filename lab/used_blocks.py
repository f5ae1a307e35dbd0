"""Which blocks of a volume, on a device or in an image, are used, according to the file system's own
tools."""


class Truth:
    """The answer of the file system's own tool: the number of blocks, their size, and which of them are
    free."""

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
