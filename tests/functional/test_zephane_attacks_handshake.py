"""Attacks on the server of the second transport during the handshake.

The attackers don't have the secret of the image. The outcomes are written to attacks-zephane-handshake.txt
beside the programs.
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
from zephane_peers import Attacker, Host, Image, admit
from zephane_scene import ENTER_SECONDS, flipped
from zephane_tls import ADDRESS, TLS_1_2, TlsConnection, TlsContext, server_context

HANDSHAKE_SECONDS = 10 # the server's time limit for a client's handshake
MARGIN_SECONDS = 5
TRIES = 20
AT_ONCE = 32
REFUSED = f"refused, {wire.NO_ACCESS}"
NEAR_SECONDS = 0.005
STRANGERS = 4000
DESCRIPTORS = 3 * STRANGERS


def code_of(attacker, hello=None, proof=None):
    """The outcome for a client that goes through the whole handshake: "refused" with a code, or "closed".
    `proof` makes the attacker's proof, if it isn't the right one for the secret."""
    with attacker, contextlib.suppress(ConnectionError):
        attacker.send_hello(hello)
        return f"refused, {attacker.send_proof(proof and wire.message(proof(attacker))).code}"
    return "closed"


def outcome_of(attacker, sent):
    """The same for a client that sends something and then shuts down its side."""
    with contextlib.suppress(ConnectionError):
        attacker.connection.send(sent)
    attacker.connection.socket.shutdown(socket.SHUT_WR)
    verdict = attacker.connection.receive_all()
    return f"refused, {wire.verdict_of(verdict).code}" if verdict else "closed"


def check_all(scene, attacks, name, attempt, variants):
    """Tries all variants, many at the same time, as the server delays its refusals. Checks that none is
    admitted, and that the server is unharmed."""
    with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
        outcomes = list(pool.map(attempt, variants))
    assert outcomes and set(outcomes) <= {"closed", REFUSED}, (name, set(outcomes))
    scene.check_unharmed()
    counted = ", ".join(f"{outcomes.count(kind)} {kind}" for kind in sorted(set(outcomes)))
    attacks.note(f"{name}, {len(outcomes)} tries", counted)


# A man in the middle.

def test_recorded_handshakes_open_nothing(scene, attacks):
    with scene.attacker() as good:
        hello = good.send_hello()
        proof = good.proof()
        assert good.send_proof(proof).code == 0
    check_all(scene, attacks, "hello and proof of another connection",
              lambda _: code_of(scene.attacker(), hello, lambda _: proof[2:]), range(5))


def test_proofs_of_another_channel_open_nothing(scene, attacks, tmp_path):
    """The man in the middle forwards the client's proof for his own channel to the server."""
    def pass_on(victim):
        with scene.attacker() as relayed:
            hello = wire.receive_message(victim)
            relayed.send_hello(hello)
            victim.send(relayed.transcript[len(hello):])
            verdict = relayed.send_proof(wire.receive_message(victim))
            victim.send(wire.refusal(verdict.code, verdict.text))

    with Host(server_context(tmp_path), pass_on) as host:
        check_all(scene, attacks, "proofs relayed from a connection to somebody else",
                  lambda _: code_of(Attacker(host.port, scene.image)), range(5))


# Wrong secrets.

def test_secrets_of_others_open_nothing(scene, attacks):
    one, other = scene.image, scene.other
    images = [Image(one.path, one.volume_id, other.secret), Image(other.path, other.volume_id, one.secret),
              Image(one.path, other.volume_id, one.secret), Image(other.path, one.volume_id, one.secret),
              Image(one.path, one.volume_id, ""), Image("nothing", one.volume_id, "")]
    check_all(scene, attacks, "the secret of another image, and none",
              lambda image: code_of(scene.attacker(image)), images)


def test_reflected_proof_opens_nothing(scene, attacks):
    """The attackers send the proof of the other role, one without the channel binding, and none at all."""
    def prove(attacker, role, exporter):
        return wire.proof_of(attacker.image.secret, role, attacker.transcript, exporter)

    proofs = [lambda one: prove(one, "server", one.connection.exporter),
              lambda one: prove(one, "client", bytes(32)),
              lambda _: bytes(wire.PROOF), lambda _: b"\xff" * wire.PROOF]
    check_all(scene, attacks, "proof of the other role, or of nothing",
              lambda proof: code_of(scene.attacker(), proof=proof), proofs)


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
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        answers = list(pool.map(lambda image: refused(scene, image), [unknown, wrong] * TRIES))
    assert len({verdict for _, verdict in answers}) == 1
    first, second = (statistics.median(seconds for seconds, _ in kind)
                     for kind in (answers[::2], answers[1::2]))
    assert abs(first - second) < NEAR_SECONDS
    attacks.note(f"unknown image and wrong secret, {TRIES} tries each",
                 f"one answer, medians of the time {first * 1e3:.2f} ms and {second * 1e3:.2f} ms")


# Malformed messages.

def outcome_of_proof(attacker, change):
    """The outcome for a client that sends a changed proof, and then shuts down its side."""
    with attacker:
        attacker.send_hello()
        return outcome_of(attacker, change(attacker.proof()))


def outcome_of_hello(attacker, sent):
    with attacker:
        attacker.connection.send(sent)
        attacker.connection.socket.shutdown(socket.SHUT_WR)
        received = attacker.connection.receive_all()
    assert len(received) in (0, len(wire.server_hello()))
    return "closed"


def test_truncated_messages_open_nothing(scene, attacks):
    def cut_proof(size):
        return outcome_of_proof(scene.attacker(), lambda proof: proof[:size])

    hello = wire.client_hello(scene.image.path, scene.image.volume_id)
    check_all(scene, attacks, "hello cut short",
              lambda size: outcome_of_hello(scene.attacker(), hello[:size]), range(len(hello)))
    check_all(scene, attacks, "proof cut short", cut_proof, range(2 + wire.PROOF))


def outcome_of_flip(attacker, hello, byte):
    """The hello is changed on the way: the client's proof is for the hello it sent, not for the one the
    server got."""
    with attacker, contextlib.suppress(ConnectionError):
        attacker.connection.send(flipped(hello, byte, byte % 8))
        if byte < 2:
            attacker.connection.socket.shutdown(socket.SHUT_WR) # the byte is a length: no more data follows
        attacker.transcript = hello + wire.receive_message(attacker.connection)
        return f"refused, {attacker.send_proof().code}"
    return "closed"


def test_flipped_bits_open_nothing(scene, attacks):
    def flip_proof(byte):
        return outcome_of_proof(scene.attacker(), lambda proof: flipped(proof, byte, byte % 8))

    hello = wire.client_hello(scene.image.path, scene.image.volume_id)
    check_all(scene, attacks, "a bit of the hello flipped",
              lambda byte: outcome_of_flip(scene.attacker(), hello, byte), range(len(hello)))
    check_all(scene, attacks, "a bit of the proof flipped", flip_proof, range(2 + wire.PROOF))


def odd_hellos(image):
    good = wire.client_hello(image.path, image.volume_id)
    yield from (wire.client_hello(image.path, image.volume_id, flags)
                for flags in (4, 16, 1 << 32, 1 << 63, 2**64 - 1))
    yield from (wire.client_hello(path, image.volume_id)
                for path in (b"", b"x" * 1025, b"x" * 4000, b"a\nb", b"a\0b", b"\x7f",
                             b"\xc0\xaf", b"\xff", b"\xed\xa0\x80", b"\xf4\x90\x80\x80"))
    yield wire.message(good[2:] + b"x")
    yield wire.message(good[2:9] + b"\0" + good[10:])
    yield wire.message(good[2:9] + b"\2" + good[10:])
    yield wire.message(b"")
    yield from (struct.pack(">H", size) + good[2:] + bytes(size) for size in (4095, 4097, 0xFFFF))
    yield b"GET / HTTP/1.1\r\n\r\n" * 400


def test_odd_hellos_open_nothing(scene, attacks):
    check_all(scene, attacks, "hello that can't be",
              lambda hello: code_of(scene.attacker(), hello), list(odd_hellos(scene.image)))


# TLS.

def test_tls_1_2_is_refused(scene, attacks):
    with pytest.raises(ConnectionError):
        TlsConnection.to(scene.port, context=TlsContext(version=TLS_1_2))
    scene.check_unharmed()
    attacks.note("TLS 1.2", "refused")


def test_plain_text_is_refused(scene, attacks):
    with scene.connect() as plain:
        plain.sendall(wire.client_hello(scene.image.path, scene.image.volume_id))
        received = b""
        with contextlib.suppress(ConnectionError):
            while piece := plain.recv(4096):
                received += piece
    assert wire.MAGIC not in received
    scene.check_unharmed()
    attacks.note("no TLS at all", "refused")


def has_ticket(port, hello):
    """Whether a server issues a ticket with which a TLS session could be resumed."""
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
    attacks.note("taking up a TLS session again", "no ticket for it")


# Slow clients.

def first_bytes_of_tls():
    """The beginning of a TLS handshake."""
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
    """Starts a TLS handshake and doesn't continue it."""
    with scene.connect() as connected:
        connected.sendall(sent)
        wait_for_end(connected)


def slow_hello(scene, messages):
    with scene.attacker(seconds=HANDSHAKE_SECONDS + MARGIN_SECONDS) as attacker:
        for send in messages:
            send(attacker)
        attacker.connection.receive_all()


def dribble(scene):
    """Sends a byte every half second."""
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
    scene.check_unharmed()


@contextlib.contextmanager
def descriptors(pid, number):
    """Sets a process's limit of descriptors during the context."""
    old = resource.prlimit(pid, resource.RLIMIT_NOFILE)
    resource.prlimit(pid, resource.RLIMIT_NOFILE, (number, old[1]))
    yield
    resource.prlimit(pid, resource.RLIMIT_NOFILE, old)


@pytest.mark.parametrize("limit", [1024, DESCRIPTORS])
def test_thousands_who_say_nothing_keep_nobody_out(scene, attacks, limit):
    """The owner is admitted whether or not the server's descriptor limit is large enough for all of them."""
    with descriptors(scene.server.pid, limit), descriptors(os.getpid(), DESCRIPTORS):
        with contextlib.ExitStack() as strangers:
            for _ in range(STRANGERS):
                strangers.enter_context(scene.connect())
            seconds = timed(scene.check_unharmed)
    assert seconds < ENTER_SECONDS + HANDSHAKE_SECONDS
    scene.check_unharmed()
    attacks.note(f"{STRANGERS} connections that say nothing, {limit} descriptors",
                 f"owners served in {seconds:.1f} s, peak of memory {scene.peak_memory() >> 10} MiB")
