"""An initiator without any of the agent's code: the library libiscsi, called directly.

    with Initiator(target, lun=1) as initiator:
        initiator.write(0, bytes(512))
"""
import ctypes

NORMAL_SESSION = 2
GOOD = 0

lib = ctypes.CDLL("libiscsi.so.7")
lib.iscsi_create_context.restype = ctypes.c_void_p
lib.iscsi_get_error.restype = ctypes.c_char_p
for name in ("iscsi_readcapacity16_sync", "iscsi_read16_iov_sync", "iscsi_write16_sync", "iscsi_unmap_sync",
             "scsi_datain_unmarshall"):
    getattr(lib, name).restype = ctypes.c_void_p


class InitiatorError(Exception):
    """A command or a login has failed; the text is the library's."""


class Capacity(ctypes.Structure):
    _fields_ = [("last_block", ctypes.c_uint64), ("block_size", ctypes.c_uint32)]


class Piece(ctypes.Structure):
    _fields_ = [("base", ctypes.c_void_p), ("length", ctypes.c_size_t)]


class Unmapped(ctypes.Structure):
    _fields_ = [("first", ctypes.c_uint64), ("count", ctypes.c_uint32)]


class Initiator:
    """A session with one LUN of a target."""

    def __init__(self, target, lun, user="", password="", seconds=10):
        self.lun = lun
        self.block_size = 0
        self.blocks = 0
        self._context = ctypes.c_void_p(lib.iscsi_create_context(b"iqn.2026-01.example:initiator"))
        lib.iscsi_set_targetname(self._context, target.name.encode())
        lib.iscsi_set_session_type(self._context, NORMAL_SESSION)
        lib.iscsi_set_timeout(self._context, seconds)
        lib.iscsi_set_noautoreconnect(self._context, 1)
        if user:
            lib.iscsi_set_initiator_username_pwd(self._context, user.encode(), password.encode())
        self._portal = target.portal.encode()

    def __enter__(self):
        if lib.iscsi_full_connect_sync(self._context, self._portal, self.lun) != 0:
            error = self._error()
            lib.iscsi_destroy_context(self._context)
            raise InitiatorError(error)
        task = self._finish(lib.iscsi_readcapacity16_sync(self._context, self.lun), keep=True)
        capacity = ctypes.cast(lib.scsi_datain_unmarshall(task), ctypes.POINTER(Capacity))[0]
        self.block_size = capacity.block_size
        self.blocks = capacity.last_block + 1
        lib.scsi_free_scsi_task(task)
        return self

    def __exit__(self, *_exception):
        lib.iscsi_logout_sync(self._context)
        lib.iscsi_destroy_context(self._context)

    def _error(self):
        return lib.iscsi_get_error(self._context).decode()

    def _finish(self, address, keep=False):
        """Checks a task, whose first field is its status."""
        if not address:
            raise InitiatorError(self._error())
        task = ctypes.c_void_p(address)
        status = ctypes.cast(task, ctypes.POINTER(ctypes.c_int))[0]
        if status != GOOD or not keep:
            lib.scsi_free_scsi_task(task)
        if status != GOOD:
            raise InitiatorError(f"status {status}: {self._error()}")
        return task

    def read(self, block, count):
        buffer = ctypes.create_string_buffer(count * self.block_size)
        piece = Piece(ctypes.addressof(buffer), len(buffer))
        self._finish(lib.iscsi_read16_iov_sync(
            self._context, self.lun, ctypes.c_uint64(block), len(buffer), self.block_size, 0, 0, 0, 0, 0,
            ctypes.byref(piece), 1))
        return buffer.raw

    def write(self, block, data):
        """Writes data in one command."""
        self._finish(lib.iscsi_write16_sync(
            self._context, self.lun, ctypes.c_uint64(block), data, len(data), self.block_size, 0, 0, 0, 0, 0))

    def unmap(self, block, count):
        self._finish(lib.iscsi_unmap_sync(
            self._context, self.lun, 0, 0, ctypes.byref(Unmapped(block, count)), 1))
