"""zstd streams, made by hand, of raw blocks and of run-length blocks."""
import ctypes
import struct

MAGIC = struct.pack("<I", 0xFD2FB528)
LARGEST_WINDOW = 23 # the largest window that both ends accept, as a power of two
BLOCK = 1 << 17
RAW, REPEATED = 0, 1


def stream_head(window=LARGEST_WINDOW):
    """The header of a zstd frame without a content size, with a window of 2 to this power."""
    return MAGIC + bytes([0, (window - 10) << 3])


def block_head(kind, size, last=False):
    return (int(last) | kind << 1 | size << 3).to_bytes(3, "little")


def plain(data):
    """Raw blocks with this content."""
    pieces = (data[begin:begin + BLOCK] for begin in range(0, len(data), BLOCK))
    return b"".join(block_head(RAW, len(piece)) + piece for piece in pieces)


def repeated(byte, size):
    """Run-length blocks of one byte: each takes four bytes for up to 128 KiB."""
    sizes = [BLOCK] * (size // BLOCK) + [size % BLOCK] * bool(size % BLOCK)
    return b"".join(block_head(REPEATED, part) + bytes([byte]) for part in sizes)


class Buffer(ctypes.Structure):
    """ZSTD_inBuffer and ZSTD_outBuffer."""

    _fields_ = [("data", ctypes.c_void_p), ("size", ctypes.c_size_t), ("used", ctypes.c_size_t)]


class Decoder:
    """A streaming decompressor."""

    def __init__(self):
        self._library = ctypes.CDLL("libzstd.so.1")
        self._library.ZSTD_createDStream.restype = ctypes.c_void_p
        self._library.ZSTD_decompressStream.restype = ctypes.c_size_t
        self._context = ctypes.c_void_p(self._library.ZSTD_createDStream())

    def decode(self, data):
        """The decompressed content of this piece of the stream."""
        source = ctypes.create_string_buffer(data, len(data))
        made = ctypes.create_string_buffer(BLOCK)
        given = Buffer(ctypes.addressof(source), len(data), 0)
        content = bytearray()
        taken = Buffer(ctypes.addressof(made), BLOCK, BLOCK)
        while given.used < given.size or taken.used == taken.size:
            taken.used = 0
            state = self._library.ZSTD_decompressStream(self._context, ctypes.byref(taken),
                                                        ctypes.byref(given))
            if self._library.ZSTD_isError(ctypes.c_size_t(state)):
                raise ValueError("not a zstd stream")
            content += made.raw[:taken.used]
        return bytes(content)

    def close(self):
        if self._context is not None:
            self._library.ZSTD_freeDStream(self._context)
            self._context = None
