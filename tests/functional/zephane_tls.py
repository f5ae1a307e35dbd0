"""TLS connections that give access to the exporter value, which Python's ssl module doesn't: they call
OpenSSL directly.

    with TlsConnection.to(port) as connection:
        connection.send(hello)
        answer = connection.receive(42)
        connection.exporter

Each call waits for at most `seconds`. If the peer has closed the connection, it raises ConnectionError; if
the peer is silent, TimeoutError. For one thread at a time.
"""
import contextlib
import ctypes
import os
import socket
import struct

from lab import certificates

ADDRESS = "127.0.0.1"
SECONDS = 20
LABEL = b"EXPORTER-Channel-Binding"
EXPORTED = 32
TLS_1_2, TLS_1_3 = 0x303, 0x304
SET_LEAST, SET_MOST = 123, 124 # of SSL_CTX_ctrl
PEM = 1
WANTS_READ, WANTS_WRITE = 2, 3 # of SSL_get_error

library = ctypes.CDLL("libssl.so.3", use_errno=True)
for name in ("TLS_method", "SSL_CTX_new", "SSL_new"):
    getattr(library, name).restype = ctypes.c_void_p


def pointer(value):
    return ctypes.c_void_p(value)


class TlsContext:
    """The settings of one end: a server's have an identity, a client's don't. They are never freed."""

    def __init__(self, identity=None, version=TLS_1_3):
        self.handle = pointer(library.SSL_CTX_new(pointer(library.TLS_method())))
        self.is_server = identity is not None
        for setting in (SET_LEAST, SET_MOST):
            library.SSL_CTX_ctrl(self.handle, setting, ctypes.c_long(version), None)
        if self.is_server:
            self._show(identity)

    def _show(self, identity):
        for call, path in ((library.SSL_CTX_use_certificate_file, identity.certificate),
                           (library.SSL_CTX_use_PrivateKey_file, identity.key)):
            if call(self.handle, os.fsencode(path), PEM) != 1:
                raise ValueError(f"{path}: not taken")


CLIENT = TlsContext()


class PlainConnection:
    """A connection without TLS, for peers that never get that far."""

    def __init__(self, connected, seconds=SECONDS):
        self.socket = connected
        connected.settimeout(seconds)

    def send(self, data):
        self.socket.sendall(data)

    def receive_all(self):
        with contextlib.suppress(ConnectionError):
            while self.socket.recv(1 << 16):
                pass

    def close(self):
        self.socket.close()


class TlsConnection:
    """One end of a connection. Owns the socket."""

    def __init__(self, connected, context, seconds=SECONDS):
        self.socket = connected
        connected.settimeout(None)
        limit = struct.pack("ll", int(seconds), int(seconds % 1 * 1e6))
        for option in (socket.SO_RCVTIMEO, socket.SO_SNDTIMEO):
            connected.setsockopt(socket.SOL_SOCKET, option, limit)
        connected.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._tls = pointer(library.SSL_new(context.handle))
        library.SSL_set_fd(self._tls, connected.fileno())
        try:
            self._check((library.SSL_accept if context.is_server else library.SSL_connect)(self._tls))
        except BaseException:
            self.close()
            raise

    @classmethod
    def to(cls, port, *, context=CLIENT, **options):
        return cls(socket.create_connection((ADDRESS, port), SECONDS), context, **options)

    def _check(self, result):
        """Returns a result above 0; raises an exception for all others."""
        if result > 0:
            return result
        error = library.SSL_get_error(self._tls, result)
        library.ERR_clear_error()
        if error in (WANTS_READ, WANTS_WRITE):
            raise TimeoutError("the peer is silent")
        raise ConnectionError(f"the peer has ended the connection ({error})")

    @property
    def exporter(self):
        made = ctypes.create_string_buffer(EXPORTED)
        done = library.SSL_export_keying_material(self._tls, made, ctypes.c_size_t(EXPORTED), LABEL,
                                                  ctypes.c_size_t(len(LABEL)), None, ctypes.c_size_t(0), 0)
        self._check(done)
        return made.raw

    def send(self, data):
        """Sends all of the data."""
        data = bytes(data)
        if data:
            self._check(library.SSL_write(self._tls, data, len(data)))

    def receive_some(self, most=1 << 16):
        """Receives at least one byte."""
        made = ctypes.create_string_buffer(most)
        size = self._check(library.SSL_read(self._tls, made, most))
        return ctypes.string_at(made, size)

    def receive(self, size):
        """Receives exactly `size` bytes."""
        data = bytearray()
        while len(data) < size:
            data += self.receive_some(min(size - len(data), 1 << 18))
        return bytes(data)

    def receive_all(self):
        """Receives everything until the peer ends the connection."""
        data = bytearray()
        with contextlib.suppress(ConnectionError):
            while True:
                data += self.receive_some()
        return bytes(data)

    def close(self):
        """Closes the socket without a TLS close notification."""
        if self._tls is not None:
            library.SSL_free(self._tls)
            self._tls = None
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_exception):
        self.close()


def server_context(directory):
    """The context of a server with a certificate of an unknown authority."""
    return TlsContext(certificates.Authority(directory).agent())
