"""The B-trees of HFS+: nodes of one size, each with records in the order of their keys."""
import itertools
import struct

NODE_SIZE = 4096
DESCRIPTOR = struct.Struct(">IIbBHH") # next and previous node of the level, kind, height, records, reserved
HEADER_RECORD = struct.Struct(">HIIIIHHIIHIBBI64x")
USER_RECORD = 128
OFFSET = 2
SPARE_NODES = 4
LEAF, INDEX, HEADER = -1, 0, 1
BIG_KEYS, VARIABLE_INDEX_KEYS = 2, 4
BINARY = 0xBC # compare names by their bytes, for names that differ only in case


class Tree:
    """A B-tree file, made from all its records at once.

    records   [(key, value)] as bytes, in order
    depth     the number of levels: 1 for a root that is a leaf; None for as few as the records need
    stale     whether left-over bytes follow the records of index nodes
    """

    def __init__(self, records, longest_key, *, attributes=BIG_KEYS, compare=0, depth=None, stale=False):
        self._records = [key + value for key, value in records]
        self._keys = [key for key, _ in records]
        self._longest_key = longest_key
        self._attributes = attributes
        self._compare = compare
        self._stale = stale
        self._most = max_records_per_node(len(records), depth)
        self._made = [b""]
        self._levels = []

        if records:
            self._add_levels()

    def content(self, block_size):
        """The bytes of the file, in whole blocks, with some spare nodes."""
        in_a_block = max(1, block_size // NODE_SIZE)
        nodes = -(-(len(self._made) + SPARE_NODES) // in_a_block) * in_a_block
        content = self._header_node(nodes) + b"".join(self._made[1:])
        return content.ljust(nodes * NODE_SIZE, b"\0")

    def _add_levels(self):
        firsts, numbers = self._add_level(LEAF, self._records, self._keys)
        while len(numbers) > 1:
            records = [key + struct.pack(">I", number) for key, number in zip(firsts, numbers)]
            firsts, numbers = self._add_level(INDEX, records, firsts)

    def _add_level(self, kind, records, keys):
        """Adds the nodes of a level; returns the first key and the number of each node."""
        groups = list(grouped(records, self._most))
        first = len(self._made)
        self._levels.append(range(first, first + len(groups)))
        places = [0, *itertools.accumulate(len(group) for group in groups)]
        for index, group in enumerate(groups):
            following = first + index + 1 if index + 1 < len(groups) else 0
            preceding = first + index - 1 if index else 0
            self._made.append(self._node(kind, group, following, preceding))
        return [keys[place] for place in places[:-1]], self._levels[-1]

    def _node(self, kind, records, following=0, preceding=0):
        height = 0 if kind == HEADER else len(self._levels)
        places = list(itertools.accumulate(map(len, records), initial=DESCRIPTOR.size))
        head = DESCRIPTOR.pack(following, preceding, kind, height, len(records), 0) + b"".join(records)
        table = b"".join(place.to_bytes(OFFSET, "big") for place in reversed(places))
        left_over = records[-1] if kind == INDEX and self._stale else b""
        return (head + left_over).ljust(NODE_SIZE - len(table), b"\0") + table

    def _header_node(self, nodes):
        depth = len(self._levels)
        root = self._levels[-1][0] if depth else 0
        first, last = (self._levels[0][0], self._levels[0][-1]) if depth else (0, 0)
        header = HEADER_RECORD.pack(depth, root, len(self._records), first, last, NODE_SIZE,
                                    self._longest_key, nodes, nodes - len(self._made), 0,
                                    NODE_SIZE * 4, 0, self._compare, self._attributes)
        room = NODE_SIZE - DESCRIPTOR.size - len(header) - USER_RECORD - 4 * OFFSET
        bitmap = bytearray(room)
        for number in range(len(self._made)):
            bitmap[number // 8] |= 0x80 >> number % 8
        return self._node(HEADER, [header, bytes(USER_RECORD), bytes(bitmap)])


def max_records_per_node(records, depth):
    """The maximum number of records per node that gives a tree of `depth` levels."""
    if depth is None:
        return NODE_SIZE
    for most in range(max(records, 2), 1, -1):
        if levels(records, most) == depth:
            return most
    raise ValueError(f"no tree of {records} records has {depth} levels")


def levels(records, most):
    count = 1
    while records > most:
        records = -(-records // most)
        count += 1
    return count


def grouped(records, most):
    """The records of each node: as many as fit, but at most `most`."""
    group, size = [], DESCRIPTOR.size + OFFSET
    for record in records:
        if group and (len(group) == most or size + len(record) + OFFSET > NODE_SIZE):
            yield group
            group, size = [], DESCRIPTOR.size + OFFSET
        group.append(record)
        size += len(record) + OFFSET
    if group:
        yield group
