"""Attacks on the server of the second transport before it has let anybody in.

Each is an attack of somebody without the secret of an image. What became of them is told beside the programs,
in attacks-zephane-handshake.txt.
"""
import concurrent.futures
import contextlib
import os
import resource
import socket
import ssl
import statistics
import struct
import time

import pytest

import zephane_wire as wire
from fault_site import FaultList
from zephane_peers import Attacker, Host, Image, admit
from zephane_scene import ENTER_SECONDS, Scene, flipped
from zephane_tls import ADDRESS, TLS_1_2, TlsConnection, TlsContext, server_context

HANDSHAKE_SECONDS = 10 # what the server gives a client for it
MARGIN_SECONDS = 5
TRIES = 21
NEAR_SECONDS = 0.005
STRANGERS = 4000
DESCRIPTORS = 3 * STRANGERS


@pytest.fixture(scope="module", name="scene")
def make_scene():
    with Scene() as made:
        yield made


@pytest.fixture(scope="module", name="attacks")
def make_attacks():
    made = FaultList("attacks-zephane-handshake", "attacks made")
    yield made
    made.write()


def outcome_of(attacker, sent):
    """What becomes of a client that has sent something, and then ends its side: "refused" with a code,
    "closed", or how else."""
    attacker.connection.send(sent)
    attacker.connection.socket.shutdown(socket.SHUT_WR)
    return outcome(attacker.connection.receive_all())


def outcome(received):
    """Of what the server has sent: messages whole, and the last one a refusal if it is a verdict."""
    hello = len(wire.server_hello())
    verdict = received[hello:]
    if not verdict:
        return "closed"
    return f"refused, {wire.verdict_of(verdict).code}"


def check_all(scene, attacks, name, outcomes):
    """No try was let in, and the server has taken no harm."""
    assert outcomes and set(outcomes) <= {"closed", f"refused, {wire.NO_ACCESS}"}, (name, set(outcomes))
    scene.check_standing()
    counted = ", ".join(f"{outcomes.count(kind)} {kind}" for kind in sorted(set(outcomes)))
    attacks.note(f"{name}, {len(outcomes)} tries", counted)


# Somebody between the two ends.

def record_handshake(scene):
    """The messages of a client that was let in."""
    with scene.attacker() as good:
        hello = good.send_hello()
        proof = good.proof()
        assert good.send_proof(proof).code == 0
    return hello, proof


def test_recorded_handshakes_open_nothing(scene, attacks):
    hello, proof = record_handshake(scene)
    outcomes = []
    for _ in range(5):
        with scene.attacker() as replayed:
            replayed.send_hello(hello)
            outcomes.append(f"refused, {replayed.send_proof(proof).code}")
    check_all(scene, attacks, "hello and proof of another connection", outcomes)


def test_proofs_of_another_channel_open_nothing(scene, attacks, tmp_path):
    """A man in the middle has the client prove itself to him, and shows that to the server."""
    outcomes = []

    def pass_on(victim):
        with scene.attacker() as relayed:
            hello = wire.receive_message(victim)
            relayed.send_hello(hello)
            victim.send(relayed.transcript[len(hello):])
            proof = wire.receive_message(victim)
            verdict = relayed.send_proof(proof)
            outcomes.append(f"refused, {verdict.code}")
            victim.send(wire.refusal(verdict.code, verdict.text))

    with Host(server_context(tmp_path), pass_on) as host:
        for _ in range(5):
            with Attacker(host.port, scene.image) as victim:
                assert victim.shake_hands().code == wire.NO_ACCESS
    check_all(scene, attacks, "proofs relayed from a connection to somebody else", outcomes)


# Secrets that don't fit.

def test_secret_of_another_image_opens_nothing(scene, attacks):
    crossed = [Image(scene.image.path, scene.image.volume_id, scene.other.secret),
               Image(scene.other.path, scene.other.volume_id, scene.image.secret),
               Image(scene.image.path, scene.other.volume_id, scene.image.secret),
               Image(scene.other.path, scene.image.volume_id, scene.image.secret)]
    outcomes = []
    for image in crossed:
        with scene.attacker(image) as attacker:
            outcomes.append(f"refused, {attacker.shake_hands().code}")
    check_all(scene, attacks, "secret of another image", outcomes)


def test_empty_secret_opens_nothing(scene, attacks):
    images = [Image(scene.image.path, scene.image.volume_id, ""), Image("nothing", 1, "")]
    outcomes = []
    for image in images:
        with scene.attacker(image) as attacker:
            outcomes.append(f"refused, {attacker.shake_hands().code}")
    check_all(scene, attacks, "empty secret", outcomes)


def test_reflected_proof_opens_nothing(scene, attacks):
    """The proof of the other role, one without the channel, and none at all."""
    def prove(one, role, exporter):
        return wire.proof_of(one.image.secret, role, one.transcript, exporter)

    outcomes = []
    for make in (lambda one: prove(one, "server", one.connection.exporter),
                 lambda one: prove(one, "client", bytes(32)),
                 lambda _: bytes(wire.PROOF), lambda _: b"\xff" * wire.PROOF):
        with scene.attacker() as attacker:
            attacker.send_hello()
            outcomes.append(f"refused, {attacker.send_proof(wire.message(make(attacker))).code}")
    check_all(scene, attacks, "proof of the other role, or of nothing", outcomes)


def refused(scene, image):
    """(seconds from the proof to the verdict, the verdict)"""
    with scene.attacker(image) as attacker:
        attacker.send_hello()
        proof = attacker.proof()
        begin = time.monotonic()
        verdict = attacker.send_proof(proof)
        return time.monotonic() - begin, verdict


def test_unknown_image_looks_like_a_wrong_secret(scene, attacks):
    unknown = Image("nothing", scene.image.volume_id, scene.image.secret)
    wrong = Image(scene.image.path, scene.image.volume_id, "wrong")
    pairs = [(refused(scene, unknown), refused(scene, wrong)) for _ in range(TRIES)]
    assert len({verdict for pair in pairs for _, verdict in pair}) == 1
    first, second = (statistics.median(seconds for seconds, _ in column) for column in zip(*pairs))
    assert abs(first - second) < NEAR_SECONDS
    check_all(scene, attacks, "unknown image and wrong secret, alternately",
              [f"refused, {verdict.code}" for pair in pairs for _, verdict in pair])
    attacks.note("unknown image, wrong secret: median of the time",
                 f"{first * 1e3:.2f} ms, {second * 1e3:.2f} ms")


# Messages that aren't what they should be.

def test_truncated_messages_open_nothing(scene, attacks):
    outcomes = []
    hello = wire.client_hello(scene.image.path, scene.image.volume_id)
    for size in range(len(hello)):
        with scene.attacker() as attacker:
            outcomes.append(outcome_of(attacker, hello[:size]))
    for size in range(2 + wire.PROOF):
        with scene.attacker() as attacker:
            attacker.send_hello()
            attacker.connection.send(attacker.proof()[:size])
            attacker.connection.socket.shutdown(socket.SHUT_WR)
            outcomes.append(outcome(wire.server_hello() + attacker.connection.receive_all()))
    check_all(scene, attacks, "hello or proof cut short", outcomes)


def test_flipped_bits_open_nothing(scene, attacks):
    """On the way, that is: what the client proves is what it has sent."""
    outcomes = []
    hello = wire.client_hello(scene.image.path, scene.image.volume_id)
    for byte in range(len(hello)):
        with scene.attacker() as attacker, contextlib.suppress(ConnectionError):
            outcomes.append("closed")
            attacker.connection.send(flipped(hello, byte, byte % 8))
            answer = wire.receive_message(attacker.connection)
            attacker.transcript = hello + answer
            outcomes[-1] = f"refused, {attacker.send_proof().code}"
    for byte in range(2 + wire.PROOF):
        with scene.attacker() as attacker:
            attacker.send_hello()
            attacker.connection.send(flipped(attacker.proof(), byte, byte % 8))
            attacker.connection.socket.shutdown(socket.SHUT_WR)
            outcomes.append(outcome(wire.server_hello() + attacker.connection.receive_all()))
    check_all(scene, attacks, "a bit of hello or proof flipped", outcomes)


def odd_hellos(image):
    good = wire.client_hello(image.path, image.volume_id)
    yield from (wire.client_hello(image.path, image.volume_id, flags)
                for flags in (4, 16, 1 << 32, 1 << 63, 2**64 - 1))
    yield from (wire.client_hello(path, image.volume_id)
                for path in (b"", b"x" * 1025, b"x" * 4000, b"a\nb", b"a\0b", b"\x7f", b"\xc0\xaf", b"\xff",
                             b"\xed\xa0\x80", b"\xf4\x90\x80\x80"))
    yield wire.message(good[2:] + b"x")
    yield wire.message(good[2:9] + b"\0" + good[10:])
    yield wire.message(good[2:9] + b"\2" + good[10:])
    yield wire.message(b"")
    yield from (struct.pack(">H", size) + good[2:] + bytes(size) for size in (4095, 4097, 0xFFFF))
    yield b"GET / HTTP/1.1\r\n\r\n" * 400


def test_odd_hellos_open_nothing(scene, attacks):
    outcomes = []
    for hello in odd_hellos(scene.image):
        with scene.attacker() as attacker, contextlib.suppress(ConnectionError):
            outcomes.append("closed")
            attacker.send_hello(hello)
            outcomes[-1] = f"refused, {attacker.send_proof().code}"
    check_all(scene, attacks, "hello that can't be", outcomes)


# TLS.

def test_tls_1_2_is_refused(scene, attacks):
    with pytest.raises(ConnectionError):
        TlsConnection.to(scene.port, context=TlsContext(version=TLS_1_2))
    check_all(scene, attacks, "TLS 1.2", ["closed"])


def test_plain_text_is_refused(scene, attacks):
    with scene.connect() as plain:
        plain.sendall(wire.client_hello(scene.image.path, scene.image.volume_id))
        received = b""
        with contextlib.suppress(ConnectionError):
            while piece := plain.recv(4096):
                received += piece
    assert wire.MAGIC not in received
    check_all(scene, attacks, "no TLS at all", ["closed"])


def has_ticket(port, hello):
    """Whether a server gives out what a TLS session could be taken up with again."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
    with context.wrap_socket(socket.create_connection((ADDRESS, port), 20)) as connection:
        connection.sendall(hello)
        assert connection.recv(2)
        return connection.session.has_ticket


def test_there_are_no_tickets(scene, attacks, tmp_path):
    hello = wire.client_hello(scene.image.path, scene.image.volume_id)
    with Host(server_context(tmp_path), lambda connection: admit(connection, "")) as common:
        assert has_ticket(common.port, hello), "this test sees none anywhere"
    assert not has_ticket(scene.port, hello)
    check_all(scene, attacks, "taking up a TLS session again", ["closed"])


# Those who take their time.

def first_bytes_of_tls():
    """The beginning of a handshake."""
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
    with contextlib.suppress(ssl.SSLWantReadError):
        context.wrap_bio(incoming, outgoing).do_handshake()
    return outgoing.read()


def wait_for_end(connected):
    connected.settimeout(HANDSHAKE_SECONDS + MARGIN_SECONDS)
    with contextlib.suppress(ConnectionError):
        while connected.recv(4096):
            pass


def slow_tls(scene, sent):
    """Begins TLS and leaves it at that."""
    with scene.connect() as connected:
        connected.sendall(sent)
        wait_for_end(connected)


def slow_hello(scene, messages):
    with scene.attacker(seconds=HANDSHAKE_SECONDS + MARGIN_SECONDS) as attacker:
        for send in messages:
            send(attacker)
        attacker.connection.receive_all()


def dribble(scene):
    """A byte each half a second."""
    hello = wire.client_hello(scene.image.path, scene.image.volume_id)
    with scene.attacker() as attacker, contextlib.suppress(ConnectionError):
        for byte in hello:
            attacker.connection.send([byte])
            time.sleep(0.5)


def timed(wait, *arguments):
    begin = time.monotonic()
    wait(*arguments)
    return time.monotonic() - begin


def test_slow_handshakes_are_ended(scene, attacks):
    begun = first_bytes_of_tls()
    slow = {"nothing, not even TLS": (slow_tls, b""),
            "half of a TLS hello": (slow_tls, begun[:len(begun) // 2]),
            "a TLS hello": (slow_tls, begun),
            "nothing behind TLS": (slow_hello, ()),
            "half of a hello": (slow_hello, [lambda one: one.connection.send(b"\0\x50ZEPHANE")]),
            "a hello": (slow_hello, [Attacker.send_hello]),
            "a byte each half a second": (dribble,)}
    with concurrent.futures.ThreadPoolExecutor(len(slow)) as pool:
        jobs = {name: pool.submit(timed, wait, scene, *arguments)
                for name, (wait, *arguments) in slow.items()}
    for name, job in jobs.items():
        assert HANDSHAKE_SECONDS - 1 < job.result() < HANDSHAKE_SECONDS + MARGIN_SECONDS, name
        attacks.note(f"{name}, and no more", f"closed after {job.result():.1f} s")
    scene.check_standing()


def set_descriptors(pid, number):
    """Lets a process have so many; returns how many it could have."""
    return resource.prlimit(pid, resource.RLIMIT_NOFILE, (number, max(number, DESCRIPTORS)))


@pytest.mark.parametrize("limit", [1024, DESCRIPTORS])
def test_thousands_who_say_nothing_keep_nobody_out(scene, attacks, limit):
    """Whether the server may have a descriptor for each of them, or not."""
    old = set_descriptors(scene.server.pid, limit)
    own = set_descriptors(os.getpid(), DESCRIPTORS)
    try:
        with contextlib.ExitStack() as strangers:
            for _ in range(STRANGERS):
                strangers.enter_context(scene.connect())
            seconds = timed(scene.check_standing)
        assert seconds < ENTER_SECONDS + HANDSHAKE_SECONDS
        scene.check_standing()
    finally:
        resource.prlimit(os.getpid(), resource.RLIMIT_NOFILE, own)
        resource.prlimit(scene.server.pid, resource.RLIMIT_NOFILE, old)
    attacks.note(f"{STRANGERS} connections that say nothing, {limit} descriptors",
                 f"owners served in {seconds:.1f} s, peak of memory {scene.peak_memory() >> 10} MiB")
