"""Attacks on the server of the second transport by admitted clients: holders of one image's secret.

They may do anything with that image, within its size. Nothing else may change, and the server must continue.
The outcomes are written to attacks-zephane-stream.txt beside the programs.
"""
import concurrent.futures
import contextlib
import os
import socket
import struct
import time

import pytest

import zephane_nbd as nbd
import zephane_wire as wire
import zephane_zstd as zstd
from zephane_nbd import NbdRefusal
from zephane_scene import MIB, OTHER_SIZE, SIZE, flipped

PLAIN, COMPRESSED = wire.WRITABLE, wire.WRITABLE | wire.COMPRESS
PLACE, LENGTH = MIB, 4096 # what the attacks write to
ENDED_SECONDS = 5
LARGEST_REQUEST = 64 * MIB
SESSIONS = 300


def write_request(data, offset=PLACE):
    """A write request in a frame, for an uncompressed stream."""
    head = struct.pack(">IHH8sQI", nbd.REQUEST, 0, nbd.WRITE, b"attacker", offset, len(data))
    return wire.frames(wire.NBD, head + data)


def end_sending(attacker):
    """Shuts down the client's side; waits for the server's."""
    attacker.connection.socket.shutdown(socket.SHUT_WR)
    assert attacker.is_ended(ENDED_SECONDS)


def elsewhere(content):
    """The content of an image without the range that the attacks write to."""
    return content[:PLACE] + content[PLACE + LENGTH:]


# Streams that are damaged on their way.

@pytest.mark.parametrize("flags, heads", [(PLAIN, 4), (COMPRESSED, 7)], ids=["plain", "compressed"])
def test_flipped_heads_change_nothing_else(scene, attacks, flags, heads):
    """Each bit of the headers of a zstd block and of a frame is flipped, after a write that has been
    acknowledged."""
    tries = 0
    for byte in range(heads):
        for bit in range(8):
            kept = os.urandom(LENGTH)
            with scene.owner(flags=flags) as (attacker, image):
                image.write(0, kept)
                before = scene.content()
                sent = attacker.stream.encoded(write_request(b"\xaa" * LENGTH))
                with contextlib.suppress(ConnectionError):
                    attacker.connection.send(flipped(sent, byte, bit))
                end_sending(attacker)
            assert scene.content()[:LENGTH] == kept
            assert elsewhere(scene.content()) == elsewhere(before)
            tries += 1
    scene.note_content()
    scene.check_unharmed()
    attacks.note(f"a bit of the heads of a block or frame flipped, {tries} tries",
                 "session ended, nothing changed")


def test_flipped_beginnings_of_a_stream_change_nothing(scene, attacks):
    """Each bit of the first bytes of a compressed stream is flipped, up to the beginning of NBD."""
    tries = 0
    for byte in range(13):
        for bit in range(8):
            with scene.admitted_client(flags=COMPRESSED) as attacker:
                sent = attacker.stream.encoded(wire.frames(wire.NBD, struct.pack(">I", 3)))
                with contextlib.suppress(ConnectionError):
                    attacker.connection.send(flipped(sent, byte, bit))
                end_sending(attacker)
            tries += 1
    scene.check_unharmed()
    attacks.note(f"a bit of the first bytes of a stream flipped, {tries} tries",
                 "session ended, nothing changed")


@pytest.mark.parametrize("flags", [PLAIN, COMPRESSED], ids=["plain", "compressed"])
def test_writes_that_are_cut_short_are_not_done(scene, attacks, flags):
    kept = os.urandom(LENGTH)
    with scene.owner() as (_, image):
        image.write(PLACE, kept)
    scene.note_content()
    whole = len(write_request(bytes(LENGTH))) + (3 if flags & wire.COMPRESS else 0)
    sizes = [*range(1, 48), *range(48, whole, 499), whole - 1]
    for size in sizes:
        with scene.owner(flags=flags) as (attacker, _):
            attacker.connection.send(attacker.stream.encoded(write_request(b"\xaa" * LENGTH))[:size])
            end_sending(attacker)
        assert scene.content()[PLACE:PLACE + LENGTH] == kept, size
    scene.check_unharmed()
    attacks.note(f"a write cut short, {len(sizes)} tries", "session ended, nothing written")


# zstd.

def odd_streams():
    """Streams that no Compressor makes."""
    good = zstd.stream_head()
    frame = wire.frames(wire.NBD, struct.pack(">I", 3))
    for window in (24, 27, 30, 31):
        yield f"window of 2^{window}", zstd.stream_head(window) + zstd.plain(frame)
    yield "content of 2^62 bytes in one window", zstd.MAGIC + b"\xe0" + struct.pack("<Q", 1 << 62) + frame
    yield "a dictionary", zstd.MAGIC + b"\x01\x68\x07" + zstd.plain(frame)
    yield "the reserved bit", zstd.MAGIC + b"\x08\x68" + zstd.plain(frame)
    yield "a reserved kind of block", good + zstd.block_head(3, 16) + bytes(16)
    yield "a block beyond 128 KiB", good + zstd.block_head(zstd.RAW, zstd.BLOCK + 1) + bytes(zstd.BLOCK + 1)
    yield "a compressed block of noise", good + zstd.block_head(2, 4096) + os.urandom(4096)
    yield "bytes to be skipped", struct.pack("<II", 0x184D2A50, MIB) + bytes(MIB)
    yield "noise", b"\xff" + os.urandom(1 << 16)
    checked = zstd.MAGIC + b"\x04\x68" + zstd.block_head(zstd.RAW, 0, last=True)
    yield "a wrong checksum", checked + b"\1\2\3\4"
    yield "a bomb of zeros", good + zstd.repeated(0, 1024 * MIB)
    yield "a bomb of ones", good + zstd.repeated(1, 1024 * MIB)


def test_streams_that_are_not_ours_end_the_session(scene, attacks):
    for name, sent in odd_streams():
        with scene.admitted_client(flags=COMPRESSED) as attacker:
            with contextlib.suppress(ConnectionError):
                attacker.connection.send(sent)
            assert attacker.is_ended(ENDED_SECONDS), name
        attacks.note(f"zstd: {name}", "session ended")
    scene.check_unharmed()


def test_bomb_of_writes_takes_no_memory(scene, attacks):
    """A GiB of zeros, compressed to 40 KB, overwrites the image many times."""
    head = struct.pack(">IHH8sQI", nbd.REQUEST, 0, nbd.WRITE, b"attacker", 0, SIZE)
    piece = zstd.plain(wire.frame(wire.NBD, b"", wire.FRAME_LIMIT)) + zstd.repeated(0, wire.FRAME_LIMIT)
    bomb = zstd.plain(wire.frames(wire.NBD, head)) + piece * (SIZE // wire.FRAME_LIMIT)
    with scene.owner(flags=COMPRESSED) as (attacker, image):
        begin = time.monotonic()
        for _ in range(1024 * MIB // SIZE):
            attacker.connection.send(bomb)
            image.reply(b"attacker")
        seconds = time.monotonic() - begin
        image.flush()
    assert scene.content() == bytes(SIZE)
    scene.note_content()
    scene.check_unharmed()
    attacks.note(f"a write of {SIZE >> 20} MiB in {len(bomb)} bytes, {1024 * MIB // SIZE} times",
                 f"written in {seconds:.1f} s, peak of memory {scene.peak_memory() >> 10} MiB")


def test_blocks_of_nothing_keep_nobody_out(scene, attacks):
    """Empty blocks cost the server time without any data; other clients continue meanwhile."""
    nothing = zstd.block_head(zstd.RAW, 0) * 100_000
    with scene.admitted_client(flags=COMPRESSED) as attacker:
        attacker.connection.send(zstd.stream_head())
        with concurrent.futures.ThreadPoolExecutor(1) as pool:
            sending = pool.submit(lambda: [attacker.connection.send(nothing) for _ in range(20)])
            with scene.owner(scene.other) as (_, other):
                assert other.size == OTHER_SIZE
            sending.result()
        end_sending(attacker)
    scene.check_unharmed()
    attacks.note("2,000,000 blocks of nothing", "session goes on, and so do others")


# Frames.

def odd_frames():
    """(name, bytes) of frames that no client sends."""
    for kind in (wire.DIGEST_ANSWER, 3, 4, 127, 128, 255):
        yield f"of kind {kind}", wire.frame(kind, b"0123456789ab")
    for length in (0, wire.FRAME_LIMIT + 1, 0xFFFFFF):
        yield f"of {length} bytes", wire.frame(wire.NBD, b"", length)
    yield "of digests that weren't granted", wire.digest_request(0, 4096)


def odd_digest_requests():
    for size in (0, 11, 13, 0xFFFFFF):
        yield f"of {size} bytes", wire.frame(wire.DIGEST_REQUEST, bytes(min(size, 64)), size)
    for offset, length in ((0, 0), (0, wire.DIGEST_LIMIT + 1), (0, 2**32 - 1), (2**64 - 1, 4096)):
        yield f"{offset}+{length}", wire.digest_request(offset, length)


@pytest.mark.parametrize("flags, odd", [(PLAIN, odd_frames), (PLAIN | wire.COMPARE, odd_digest_requests)],
                         ids=["frames", "digests"])
def test_odd_frames_end_the_session(scene, attacks, flags, odd):
    for name, sent in odd():
        with scene.owner(flags=flags) as (attacker, _):
            with contextlib.suppress(ConnectionError):
                attacker.stream.send_raw(sent)
            assert attacker.is_ended(ENDED_SECONDS), name
        attacks.note(f"frame: {odd.__name__}, {name}", "session ended")
    scene.check_unharmed()


def ask_for_digests(attacker, offset, length):
    """(code, digests)"""
    attacker.stream.send_raw(wire.digest_request(offset, length))
    kind, answer = attacker.stream.receive_frame()
    assert kind == wire.DIGEST_ANSWER
    return struct.unpack(">i", answer[:4])[0], answer[4:]


@pytest.mark.parametrize("offset, length", [(SIZE, 1), (SIZE - 1, 2), (SIZE - MIB, 2 * MIB), (1 << 62, 4096)])
def test_digests_of_what_is_not_there(scene, attacks, offset, length):
    with scene.owner(flags=PLAIN | wire.COMPARE) as (attacker, image):
        code, digests = ask_for_digests(attacker, offset, length)
        assert code < 0 and not digests
        assert ask_for_digests(attacker, SIZE - MIB, MIB) == (0, wire.digests_of(scene.content()[-MIB:]))
        image.write(PLACE, scene.content()[PLACE:PLACE + LENGTH])
    scene.check_unharmed()
    attacks.note(f"digests of {offset}+{length}, beyond the end", f"refused, {code}")


def test_two_digest_requests_at_once_end_the_session(scene, attacks):
    with scene.owner(flags=PLAIN | wire.COMPARE) as (attacker, _):
        with contextlib.suppress(ConnectionError):
            attacker.stream.send_raw(wire.digest_request(0, wire.DIGEST_LIMIT) * 200)
        assert attacker.is_ended(ENDED_SECONDS)
    scene.check_unharmed()
    attacks.note("200 digest requests at once", "session ended")


# NBD.

def size_of_export(scene, ask):
    """The size that a client gets when it asks for an export with `ask`, or None."""
    with scene.admitted_client(flags=PLAIN) as attacker:
        image = nbd.NbdClient(attacker.stream).greet()
        with contextlib.suppress(NbdRefusal, ConnectionError):
            ask(image)
            assert image.read(0, LENGTH) == scene.content()[:LENGTH]
        return image.size


def test_other_exports_are_refused_or_the_same_image(scene, attacks):
    names = [b"other", scene.other.path.encode(), b"../other", bytes(scene.path(scene.other)), b"/etc/passwd",
             b"x" * 4000]
    ways = {"go": lambda image, name: image.go(name),
            "info, then go": lambda image, name: image.go(name, option=nbd.INFO).go(name),
            "the old way": lambda image, name: image.go_old(name)}
    for way, ask in ways.items():
        sizes = {size_of_export(scene, lambda image, name=name: ask(image, name)) for name in names}
        assert sizes <= {None, SIZE}
        attacks.note(f"NBD: export by another name, {way}, {len(names)} tries", f"sizes {sizes}")
    assert size_of_export(scene, lambda image: image.go(b"")) == SIZE
    scene.check_unharmed()


def test_list_of_exports_names_no_other_image(scene, attacks):
    with scene.admitted_client() as attacker:
        listed = nbd.NbdClient(attacker.stream).greet().option(nbd.LIST)
    assert listed and not any(scene.other.path.encode() in data for _, data in listed)
    attacks.note("NBD: list of exports", f"{listed}")


def test_endless_haggling_is_ended(scene, attacks):
    with scene.admitted_client(flags=PLAIN) as attacker:
        image = nbd.NbdClient(attacker.stream).greet()
        with pytest.raises(ConnectionError):
            for _ in range(10_000):
                with contextlib.suppress(NbdRefusal):
                    image.option(99, bytes(4096))
    with scene.admitted_client(flags=PLAIN) as attacker:
        nbd.NbdClient(attacker.stream).greet()
        attacker.stream.send(b"IHAVEOPT" + struct.pack(">II", nbd.GO, 2**32 - 1))
        assert attacker.is_ended(ENDED_SECONDS)
    scene.check_unharmed()
    attacks.note("NBD: 10,000 options, and one of 4 GiB", "session ended")


BEYOND = [(nbd.WRITE, SIZE, 4096), (nbd.WRITE, SIZE - 1, 2), (nbd.WRITE, 1 << 40, 4096),
          (nbd.WRITE, 2**64 - 1, 1), (nbd.WRITE, 2**64 - 4096, 8192), (nbd.WRITE, 0, SIZE + 1),
          (nbd.WRITE, 0, LARGEST_REQUEST), (nbd.WRITE_ZEROES, SIZE - 4096, 8192),
          (nbd.WRITE_ZEROES, 0, 2**32 - 1), (nbd.WRITE_ZEROES, 1 << 63, 4096), (nbd.TRIM, SIZE, 4096),
          (nbd.TRIM, 2**64 - 4096, 4096), (nbd.READ, SIZE, 1), (nbd.READ, 0, SIZE + 1),
          (nbd.READ, 2**64 - 1, 2**32 - 1), (nbd.READ, 0, 2**32 - 1)]


@pytest.mark.parametrize("kind, offset, length", BEYOND)
def test_requests_beyond_the_end_are_refused(scene, attacks, kind, offset, length):
    with scene.owner(flags=PLAIN) as (_, image):
        with pytest.raises((NbdRefusal, ConnectionError)) as refusal:
            image.call(kind, offset, length, bytes(length) if kind == nbd.WRITE else b"")
    scene.check_unharmed()
    attacks.note(f"NBD: request {kind} of {offset}+{length}, {SIZE} is the end", str(refusal.value))


def test_garbage_instead_of_nbd_ends_the_session(scene, attacks):
    for sent in (os.urandom(1 << 16), struct.pack(">I", nbd.REQUEST) + b"\xff" * 24, b"\0" * 28):
        with scene.owner() as (attacker, _):
            with contextlib.suppress(ConnectionError):
                attacker.stream.send(sent)
                attacker.connection.socket.shutdown(socket.SHUT_WR)
            assert attacker.is_ended(ENDED_SECONDS)
    scene.check_unharmed()
    attacks.note("NBD: noise, 3 tries", "session ended")


@pytest.mark.parametrize("flags", [0, wire.COMPARE, wire.COMPRESS])
def test_who_may_only_read_changes_nothing(scene, attacks, flags):
    with scene.owner(flags=flags) as (_, image):
        assert image.flags & nbd.READ_ONLY
        assert image.read(PLACE, LENGTH) == scene.content()[PLACE:PLACE + LENGTH]
    for kind, data in ((nbd.WRITE, b"\xaa" * LENGTH), (nbd.WRITE_ZEROES, b""), (nbd.TRIM, b"")):
        with scene.owner(flags=flags) as (_, image), pytest.raises((NbdRefusal, ConnectionError)) as refusal:
            image.call(kind, PLACE, LENGTH, data)
        attacks.note(f"NBD: request {kind} of one who may only read, flags {flags}", str(refusal.value))
    scene.check_unharmed()


# Several clients at once.

def code_of(attacker):
    with attacker:
        return attacker.shake_hands().code


def test_one_writer_at_a_time(scene, attacks):
    with scene.owner() as (writer, image):
        assert code_of(scene.attacker()) == wire.BUSY
        assert code_of(scene.attacker(flags=0)) == 0
        assert code_of(scene.attacker(client_id=writer.client_id)) == 0
        assert code_of(scene.attacker(scene.other)) == 0
        image.write(PLACE, scene.content()[PLACE:PLACE + LENGTH])
    with scene.owner():
        pass # the previous one has closed without a TLS notification
    scene.check_unharmed()
    attacks.note("a second writer", f"refused, {wire.BUSY}")


def test_only_who_holds_the_secret_learns_of_a_writer(scene, attacks):
    with scene.owner():
        stranger = scene.attacker()
        stranger.send_hello()
        code = stranger.send_proof(wire.message(bytes(wire.PROOF))).code
        stranger.close()
    assert code == wire.NO_ACCESS
    attacks.note("a wrong secret while another client writes", f"refused, {code}")


def test_sessions_of_one_image_keep_nobody_out_of_another(scene, attacks):
    """There are more sessions than the server allows in all."""
    with contextlib.ExitStack() as many:
        codes = [many.enter_context(scene.attacker(flags=0)).shake_hands().code for _ in range(SESSIONS)]
        assert codes[0] == 0
        with scene.owner(scene.other) as (_, image):
            assert image.size == OTHER_SIZE
    scene.check_unharmed()
    attacks.note(f"{SESSIONS} sessions of one image at once", f"{codes.count(0)} served, other images too")
