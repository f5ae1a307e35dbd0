"""Servers of the second transport that violate the protocol, each in one way."""
import functools
import os
import struct
import time

import zephane_nbd as nbd
import zephane_wire as wire
from zephane_nbd import NbdServer
from zephane_peers import Image, admit
from zephane_scene import SIZE

IMAGE = Image("data", 7, "secret")


class Silence(Exception):
    """The server sends nothing more until the client disconnects."""


def be_silent(*_):
    raise Silence


def hang_up(*_):
    raise ConnectionError("on purpose")


def served(serve):
    """Wraps `serve`: when it falls silent, the wrapper waits until the client disconnects."""
    @functools.wraps(serve)
    def run(connection):
        try:
            serve(connection)
        except Silence:
            connection.receive_all()
    return run


def send(data):
    """Sends this data instead of the right data, and then nothing."""
    def act(connection, *_):
        connection.send(data)
        raise Silence
    return act


def dribble(data, seconds):
    """Does the same, a byte at a time."""
    def act(connection, *_):
        for byte in data:
            connection.send(bytes([byte]))
            time.sleep(seconds)
        raise Silence
    return act


def for_hello(act):
    """Calls `act` instead of sending the server's hello."""
    @served
    def serve(connection):
        wire.receive_message(connection)
        act(connection)
    return serve


def for_verdict(make):
    """Sends `make(transcript, connection)` instead of the verdict."""
    @served
    def serve(connection):
        transcript = wire.receive_message(connection) + wire.server_hello()
        connection.send(transcript[-len(wire.server_hello()):])
        transcript += wire.receive_message(connection)
        connection.send(make(transcript, connection))
        raise Silence
    return serve


def behind_handshake(act, flags=wire.WRITABLE):
    """Calls `act` with the stream after the handshake."""
    return served(lambda connection: act(admit(connection, IMAGE.secret, flags)))


def raw(data):
    """Sends bytes that may not be frames."""
    def act(stream):
        stream.send_raw(data)
        raise Silence
    return act


def uncompressed(data):
    """Sends bytes that may not be zstd."""
    def act(stream):
        send(data)(stream.connection)
    return act


def with_nbd(flags=wire.WRITABLE, size=SIZE, nbd_flags=nbd.USUAL, **steps):
    """An NBD server with some steps replaced."""
    def act(stream):
        server = NbdServer(stream, size, nbd_flags)
        for name, step in steps.items():
            setattr(server, name, functools.partial(step, server))
        server.run()
    return behind_handshake(act, flags)


def on_request(kind, act):
    """Calls `act` for requests of this kind; others are served."""
    def serve(server, asked, cookie, offset, length, data):
        if asked == kind:
            act(server, cookie, length)
            return True
        return NbdServer.serve(server, asked, cookie, offset, length, data)
    return serve


def reply(data=b"", cookie=None, error=0, magic=nbd.REPLY):
    def act(server, asked, _length):
        server.stream.send(struct.pack(">II", magic, error) + (cookie or asked) + data)
    return act


def reply_raw(data):
    def act(server, *_):
        server.stream.send_raw(data)
    return act


def reply_slowly(server, cookie, length):
    """Sends a byte of the answer every five seconds."""
    for byte in struct.pack(">II", nbd.REPLY, 0) + cookie + bytes(length):
        server.stream.send(bytes([byte]))
        time.sleep(5)


def flood(stream):
    """Sends endless, unsolicited NBD data."""
    while True:
        stream.send(bytes(wire.FRAME_LIMIT))


def with_digests(answer):
    """A server that supports comparing, and answers a request for digests with `answer(offset, length)`."""
    def act(stream):
        stream.answer = lambda payload: answer(*struct.unpack(">QI", payload))
        NbdServer(stream, SIZE).run()
    return behind_handshake(act, wire.WRITABLE | wire.COMPARE)


def digest_answer(code, digests):
    return wire.frame(wire.DIGEST_ANSWER, struct.pack(">i", code) + digests)


VERDICT_HEAD = struct.pack(">HiQ", 12 + wire.PROOF, 0, wire.WRITABLE)
MORE_FLAGS = VERDICT_HEAD[:6] + struct.pack(">Q", wire.WRITABLE | wire.COMPARE)
# The verdicts of servers without the secret, made from transcript and exporter.
FORGERIES = {
    "nothing": lambda *_: VERDICT_HEAD + bytes(wire.PROOF),
    "noise": lambda *_: VERDICT_HEAD + os.urandom(wire.PROOF),
    "the client's own proof": lambda transcript, _: VERDICT_HEAD + transcript[-wire.PROOF:],
    "another secret": lambda transcript, exporter: wire.grant("another", transcript, exporter, wire.WRITABLE),
    "another channel": lambda transcript, _: wire.grant(IMAGE.secret, transcript, bytes(32), wire.WRITABLE),
    "another hello": lambda transcript, exporter: wire.grant(IMAGE.secret, b"x" + transcript[1:], exporter,
                                                             wire.WRITABLE),
    "the proof of other flags": lambda transcript, exporter: MORE_FLAGS + wire.grant(
        IMAGE.secret, transcript, exporter, wire.WRITABLE)[len(MORE_FLAGS):],
}


def granted(flags):
    """A valid proof of the server, with these flags."""
    return for_verdict(lambda transcript, connection:
                       wire.grant(IMAGE.secret, transcript, connection.exporter, flags))


def verdict_of_length(claimed, sent):
    return for_verdict(lambda *_: struct.pack(">H", claimed) + sent)
