"""NTFS volumes whose own structures are where the usual tools don't put them: in many runs, or in records
that an attribute list names. The volumes stay consistent, so ntfsresize reports no error.

    scatter(image, BITMAP, 40)
    list_attributes(image, BITMAP)
"""
import ctypes
import ctypes.util
import os
import random

from lab.ntfs_volume import BITMAP, DATA, MFT, MIRRORED, NtfsVolume

JUNK = b"\xcc" # written over the old place of the data


def scatter(image, number, count, seed=5):
    """Moves the data of a file into `count` runs at random places. The first records of the master file table
    stay where they are, as the boot sector says where they are."""
    with open(image, "r+b") as file:
        volume = NtfsVolume(file)
        fixed = -(-MIRRORED * volume.record_size // volume.cluster_size) if number == MFT else 0
        kept, moved = parted(volume.record(number).attribute(DATA).runs, fixed)
        content = volume.read_runs(moved)
        clusters = Clusters(volume)
        places = clusters.move(moved, count, random.Random(seed))
        volume.write_runs(moved, JUNK * len(content))
        volume.write_runs(places, content)
        record = volume.record(number)
        record.attribute(DATA).runs = kept + places
        volume.write_record(number, record)
        clusters.write()


def parted(runs, clusters):
    """Splits runs in two: those of the first `clusters` clusters, and the rest."""
    first, others = [], []
    for begin, count in runs:
        taken = min(clusters, count)
        clusters -= taken
        first += [(begin, taken)] if taken else []
        others += [(begin + taken, count - taken)] if count > taken else []
    return first, others


class Clusters:
    """The cluster bitmap of a volume."""

    def __init__(self, volume):
        self._volume = volume
        self._bits = bytearray(volume.read_runs(self._runs()))

    def _runs(self):
        return self._volume.record(BITMAP).attribute(DATA).runs

    def write(self):
        """Writes the bitmap to where it is now."""
        self._volume.write_runs(self._runs(), bytes(self._bits))

    def move(self, runs, count, dice):
        """Frees these runs, and allocates `count` others of the same total length."""
        total = sum(length for _, length in runs)
        if count > total:
            raise ValueError(f"{total} clusters can't be {count} runs")
        self._mark([cluster for first, length in runs for cluster in range(first, first + length)], False)
        lengths = [total // count + (number < total % count) for number in range(count)]
        return [self._take(length, dice) for length in lengths]

    def _take(self, length, dice):
        """Allocates a run with free clusters on both sides, so that no two runs merge into one."""
        while True:
            first = dice.randrange(1, self._volume.clusters - length - 1)
            if not any(self._is_used(cluster) for cluster in range(first - 1, first + length + 1)):
                self._mark(range(first, first + length), True)
                return first, length

    def _is_used(self, cluster):
        return self._bits[cluster // 8] >> cluster % 8 & 1

    def _mark(self, clusters, is_used):
        for cluster in clusters:
            bit = 1 << cluster % 8
            self._bits[cluster // 8] = self._bits[cluster // 8] & ~bit | (bit if is_used else 0)


def list_attributes(image, number):
    """Moves the data of a file into a record of its own, which an attribute list refers to. Uses the library
    of ntfs-3g."""
    library = Library(image)
    with library as volume:
        inode = library.call("ntfs_inode_open", volume, ctypes.c_uint64(number))
        library.call("ntfs_inode_add_attrlist", inode, result=ctypes.c_int)
        search = library.call("ntfs_attr_get_search_ctx", inode, None)
        library.call("ntfs_attr_lookup", DATA, None, 0, 0, ctypes.c_int64(0), None, 0, search,
                     result=ctypes.c_int)
        library.call("ntfs_attr_record_move_away", search, 0, result=ctypes.c_int)
        library.call("ntfs_attr_put_search_ctx", search)
        library.call("ntfs_inode_close", inode, result=ctypes.c_int)


class Library:
    """libntfs-3g, with a volume that is open as long as the context lasts."""

    def __init__(self, image):
        self._library = ctypes.CDLL(ctypes.util.find_library("ntfs-3g"), use_errno=True)
        self._image = os.fsencode(image)
        self._volume = None

    def call(self, name, *arguments, result=ctypes.c_void_p):
        function = self._library[name]
        function.restype = result
        found = function(*arguments)
        if result is ctypes.c_int and found != 0:
            raise OSError(ctypes.get_errno(), f"{name} failed")
        return ctypes.c_void_p(found)

    def __enter__(self):
        self._volume = self.call("ntfs_mount", self._image, ctypes.c_ulong(0))
        return self._volume

    def __exit__(self, *_):
        self.call("ntfs_umount", self._volume, 0, result=ctypes.c_int)
