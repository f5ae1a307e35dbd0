"""A client and a server for tests that follow the protocol up to some point.

    with Attacker(port, image) as attacker:
        attacker.send_hello()
        attacker.send_proof()
        attacker.stream.send(nothing_that_is_nbd)

The steps are separate methods, to be called one by one, left out, or changed.
"""
import contextlib
import dataclasses
import os
import socket
import struct
import threading

import zephane_wire as wire
from zephane_tls import ADDRESS, CLIENT, SECONDS, PlainConnection, TlsConnection
from zephane_zstd import Decoder, plain, stream_head

PEER_SECONDS = 100 # longer than any client waits


@dataclasses.dataclass(frozen=True)
class Image:
    """The path and volume ID that a client names, and the secret that it has for it."""

    path: str
    volume_id: int
    secret: str


class FrameStream:
    """A stream of NBD bytes, sent and received in frames over a TLS connection. A compressed stream has zstd
    blocks with uncompressed content. `answer` gets the payload of other frames and returns what to send for
    them."""

    def __init__(self, connection, compressed=False):
        self.connection = connection
        self._compressed = compressed
        self._begun = False
        self._decoder = Decoder() if compressed else None
        self._raw = bytearray()
        self._nbd = bytearray()
        self.answer = None

    def send(self, data):
        self.send_raw(wire.frames(wire.NBD, data))

    def send_raw(self, data):
        """Sends any bytes, frames or not."""
        self.connection.send(self.encoded(data))

    def encoded(self, data):
        """The bytes as they are sent over the connection."""
        if not self._compressed:
            return data
        head = b"" if self._begun else stream_head()
        self._begun = True
        return head + plain(data)

    def receive(self, size):
        while len(self._nbd) < size:
            kind, payload = self.receive_frame()
            if kind == wire.NBD:
                self._nbd += payload
            else:
                self.send_raw(self.answer(payload))
        data = bytes(self._nbd[:size])
        del self._nbd[:size]
        return data

    def receive_frame(self):
        """(kind, payload) of the next frame."""
        head = self._receive_raw(4)
        return head[0], self._receive_raw(int.from_bytes(head[1:], "big"))

    def _receive_raw(self, size):
        while len(self._raw) < size:
            piece = self.connection.receive_some(1 << 18)
            self._raw += self._decoder.decode(piece) if self._compressed else piece
        data = bytes(self._raw[:size])
        del self._raw[:size]
        return data

    def close(self):
        if self._decoder is not None:
            self._decoder.close()


class Attacker:
    """A client. Its client ID is random unless one is given."""

    def __init__(self, port, image, flags=wire.WRITABLE, *, client_id=None, context=CLIENT, seconds=SECONDS):
        self.image = image
        self.flags = flags
        self.client_id = client_id or os.urandom(16)
        self.connection = TlsConnection.to(port, context=context, seconds=seconds)
        self.transcript = b""
        self.stream = None

    def send_hello(self, hello=None):
        """Sends the client's hello, and receives the server's."""
        hello = hello or wire.client_hello(self.image.path, self.image.volume_id, self.flags, self.client_id)
        self.connection.send(hello)
        self.transcript = hello + wire.receive_message(self.connection)
        return hello

    def proof(self):
        """The proof that belongs to the secret."""
        return wire.client_proof(self.image.secret, self.transcript, self.connection.exporter)

    def send_proof(self, proof=None):
        """Sends the proof; returns the verdict."""
        proof = proof or self.proof()
        self.connection.send(proof)
        self.transcript += proof
        whole = wire.receive_message(self.connection)
        verdict = wire.verdict_of(whole)
        if verdict.code == 0:
            expected = wire.grant(self.image.secret, self.transcript, self.connection.exporter, verdict.flags)
            if whole != expected:
                raise ValueError("the server doesn't hold the secret")
            self.stream = FrameStream(self.connection, bool(verdict.flags & wire.COMPRESS))
        return verdict

    def shake_hands(self):
        self.send_hello()
        return self.send_proof()

    def is_ended(self, seconds=SECONDS):
        """Whether the server ends the connection within this number of seconds, whatever it sends before."""
        limit = struct.pack("ll", int(seconds), 0)
        self.connection.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVTIMEO, limit)
        try:
            self.connection.receive_all()
        except TimeoutError:
            return False
        return True

    def close(self):
        if self.stream is not None:
            self.stream.close()
        self.connection.close()

    def __enter__(self):
        return self

    def __exit__(self, *_exception):
        self.close()


class Host:
    """A server on a port of its own, which calls `serve(connection)` for each connection after the TLS
    handshake. Without a context there is no TLS. It is no error if the client disconnects early."""

    def __init__(self, context, serve):
        self._context = context
        self._serve = serve
        self._listener = socket.create_server((ADDRESS, 0), backlog=64)
        self._threads = [threading.Thread(target=self._accept, daemon=True)]
        self._threads[0].start()

    @property
    def port(self):
        return self._listener.getsockname()[1]

    def _accept(self):
        with contextlib.suppress(OSError): # raised when the listener is closed
            while True:
                connected, _ = self._listener.accept()
                self._threads.append(threading.Thread(target=self._run, args=(connected,), daemon=True))
                self._threads[-1].start()

    def _run(self, connected):
        with contextlib.suppress(OSError), connected:
            with contextlib.closing(self._connection(connected)) as connection:
                self._serve(connection)

    def _connection(self, connected):
        if self._context is None:
            return PlainConnection(connected, PEER_SECONDS)
        return TlsConnection(connected, self._context, PEER_SECONDS)

    def close(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        for thread in self._threads:
            thread.join(SECONDS)

    def __enter__(self):
        return self

    def __exit__(self, *_exception):
        self.close()


def admit(connection, secret, flags=0):
    """The server's side of a successful handshake; grants `flags`. Returns the stream that follows it."""
    transcript = wire.receive_message(connection)
    hello = wire.server_hello()
    connection.send(hello)
    transcript += hello + wire.receive_message(connection)
    connection.send(wire.grant(secret, transcript, connection.exporter, flags))
    return FrameStream(connection, bool(flags & wire.COMPRESS))
