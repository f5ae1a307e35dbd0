"""Attacks on the client of the second transport: by servers that violate the protocol, and by a man in the
middle.

Whatever happens, the client ends within its time limits, reports the error, and reports nothing as done that
isn't. The outcomes of the attacks are written to attacks-zephane-client.txt beside the programs.
"""
import concurrent.futures
import contextlib
import dataclasses
import errno
import functools
import json
import os
import struct
import subprocess
import threading
import time
import typing

import pytest

import zephane_nbd as nbd
import zephane_wire as wire
import zephane_zstd as zstd
from lab.daemon import program
from lab.usage import status_number
from zephane_bad_servers import (FORGERIES, IMAGE, VERDICT_HEAD, Silence, be_silent, behind_handshake,
                                 digest_answer, dribble, flood, for_hello, for_verdict, granted, hang_up,
                                 on_request, raw, reply, reply_raw, reply_slowly, send, served, uncompressed,
                                 verdict_of_length, with_digests, with_nbd)
from zephane_peers import Attacker, Host
from zephane_scene import MIB, Scene
from zephane_tls import ADDRESS, server_context

OPEN_SECONDS, ANSWER_SECONDS = 20, 60
MARGIN_SECONDS = 8
LIMIT_SECONDS = 200 # far longer than a client may take
MOST_MEMORY = 192 * 1024 # KiB
OPEN, WRITE, READ = range(3)
CALLS = ("open", "write", "read")
COMMANDS = ("open", f"write {MIB}", "seek 0", f"read {MIB}", "close")
FLAGS = wire.WRITABLE | wire.COMPRESS


@dataclasses.dataclass(frozen=True)
class Run:
    """A client's answers to the commands, the time that it took, and its peak memory."""

    answers: list
    seconds: float
    memory: int

    @property
    def codes(self):
        """The status codes of open, write, read and close."""
        return [answer["code"] for answer in self.answers[:2] + self.answers[3:]]


def run_client(port, image=IMAGE, flags=FLAGS):
    """Runs the real client through all commands."""
    command = [program("ZephaneProbe"), ADDRESS, str(port), image.path, str(image.volume_id), str(flags),
               image.secret]
    begin = time.monotonic()
    with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as process:
        limit = threading.Timer(LIMIT_SECONDS, process.kill)
        limit.start()
        process.stdin.write("".join(f"{line}\n" for line in COMMANDS).encode())
        process.stdin.flush()
        answers = [json.loads(process.stdout.readline() or "null") for _ in COMMANDS]
        seconds, memory = time.monotonic() - begin, status_number(process.pid, "VmHWM")
        process.stdin.close()
        assert process.wait(LIMIT_SECONDS) == 0
        limit.cancel()
    return Run(answers, seconds, memory)


@dataclasses.dataclass(frozen=True)
class Attack:
    """A server's behaviour, the client call that must fail, and the time limit for that in seconds. If the
    attack `breaks` the connection, no later call works."""

    name: str
    serve: typing.Callable
    fails: int
    seconds: float = MARGIN_SECONDS
    breaks: bool = True
    flags: int = FLAGS


def steps_of_opening():
    """(name, function that builds a server which acts at this step, the right data of that step)"""
    yield "for the hello", for_hello, wire.server_hello()
    yield ("for the verdict", lambda act: for_verdict(lambda _, connection: act(connection) or b""),
           VERDICT_HEAD + bytes(wire.PROOF))
    yield "for NBD's greeting", behind_handshake, nbd.GREETING + b"\0\3"
    yield ("for NBD's options", lambda act: with_nbd(negotiate_options=lambda server: act(server.stream)),
           bytes(20))


def attacks_on_opening():
    for step, build, due in steps_of_opening():
        yield Attack(f"silence {step}", build(be_silent), OPEN, OPEN_SECONDS)
        yield Attack(f"the end {step}", build(hang_up), OPEN)
        yield Attack(f"noise {step}", build(send(os.urandom(1 << 16))), OPEN, OPEN_SECONDS)
        yield Attack(f"a byte every two seconds {step}", build(dribble(due, 2)), OPEN, OPEN_SECONDS)
    for name, forge in FORGERIES.items():
        yield Attack(f"a verdict proven by {name}",
                     for_verdict(lambda transcript, connection, forge=forge:
                                 forge(transcript, connection.exporter)), OPEN)
    for flags in (FLAGS | 4, 2**64 - 1):
        yield Attack(f"flags {flags:x} granted", granted(flags), OPEN)
    for code in (1, 13, 2**31 - 1, -(2**31), -1):
        yield Attack(f"refusal by code {code}",
                     for_verdict(lambda *_, code=code: wire.refusal(code, "no\n\0" * 900)), OPEN)
    for claimed, sent in ((0, b""), (3, bytes(3)), (44, bytes(44)), (0xFFFF, bytes(1 << 16)),
                          (6, struct.pack(">iH", -13, 9)), (45, bytes(45))):
        yield Attack(f"verdict of {claimed} bytes", verdict_of_length(claimed, sent), OPEN)


def attacks_on_the_stream():
    for size in (2**63, 2**64 - 1):
        yield Attack(f"an image of {size} bytes", with_nbd(size=size), OPEN)
    yield Attack("an image of no bytes", with_nbd(size=0), WRITE, breaks=False)
    yield Attack("an image that can only be read", with_nbd(nbd_flags=nbd.USUAL | nbd.READ_ONLY), OPEN)
    yield Attack("no right to write granted", with_nbd(flags=0), OPEN)
    for name, data in (("of kind 1", wire.digest_request(0, 4096)), ("of kind 3", wire.frame(3, b"x")),
                       ("of kind 255", wire.frame(255, b"x")), ("of no bytes", wire.frame(wire.NBD, b"")),
                       ("too long", wire.frame(wire.NBD, b"", wire.FRAME_LIMIT + 1)),
                       ("of digests unasked", digest_answer(0, bytes(32)))):
        yield Attack(f"a frame {name}", behind_handshake(raw(data)), OPEN)
    for name, data in (("a bomb of zeros", zstd.stream_head() + zstd.repeated(0, 1024 * MIB)),
                       ("a window of 2^27", zstd.stream_head(27) + zstd.plain(wire.frame(wire.NBD, b"x"))),
                       ("noise", b"\xff" + os.urandom(1 << 16))):
        yield Attack(f"zstd: {name}",
                     behind_handshake(uncompressed(data), wire.WRITABLE | wire.COMPRESS), OPEN)
    yield Attack("NBD without end", behind_handshake(flood), OPEN)


def attacks_on_requests():
    for name, kind, fails in (("write", nbd.WRITE, WRITE), ("read", nbd.READ, READ)):
        def acting(act, kind=kind):
            return with_nbd(serve=on_request(kind, act))
        yield Attack(f"silence for a {name}", acting(be_silent), fails, ANSWER_SECONDS)
        yield Attack(f"the end for a {name}", acting(hang_up), fails)
        yield Attack(f"another's answer for a {name}", acting(reply(cookie=b"somebody")), fails)
        yield Attack(f"noise for a {name}", acting(reply(magic=0x12345678)), fails)
        yield Attack(f"error EIO for a {name}", acting(reply(error=5)), fails, breaks=False)
        yield Attack(f"error 0xffffffff for a {name}", acting(reply(error=2**32 - 1)), fails, breaks=False)
        yield Attack(f"an answer to a {name}, a byte each five seconds", acting(reply_slowly), fails,
                     ANSWER_SECONDS)
    read, flush = (functools.partial(on_request, kind) for kind in (nbd.READ, nbd.FLUSH))
    yield Attack("silence for the read of a comparison", with_nbd(serve=read(be_silent)), WRITE,
                 ANSWER_SECONDS, flags=FLAGS | wire.COMPARE)
    yield Attack("half of what is read, then silence", with_nbd(serve=read(reply(bytes(MIB // 2)))), READ,
                 ANSWER_SECONDS)
    yield Attack("a frame of kind 9 for a read", with_nbd(serve=read(reply_raw(wire.frame(9, b"x")))), READ)
    yield Attack("error EIO for a flush", with_nbd(serve=flush(reply(error=5))), READ)
    yield Attack("the end for a flush", with_nbd(serve=flush(hang_up)), READ)
    yield Attack("silence for a flush", with_nbd(serve=flush(be_silent)), READ, ANSWER_SECONDS)


def digests(count):
    """An answer with `count` digests, whatever was asked for."""
    return lambda *_: digest_answer(0, bytes(count * 32))


def attacks_on_digests():
    flags, right = wire.WRITABLE | wire.COMPARE, MIB // wire.DIGEST_UNIT
    for name, answer in (("one too few", digests(right - 1)), ("one too many", digests(right + 1)),
                         ("none", digests(0)), ("4,096", digests(4096)),
                         ("half a digest", lambda *_: digest_answer(0, bytes(right * 32 - 16))),
                         ("an error", lambda *_: digest_answer(-5, b"")),
                         ("code 1", lambda *_: digest_answer(1, b"")),
                         ("half a code", lambda *_: wire.frame(wire.DIGEST_ANSWER, b"\0\0"))):
        yield Attack(f"digests: {name}", with_digests(answer), WRITE, breaks=False, flags=flags)
    yield Attack("digests: silence", with_digests(be_silent), WRITE, ANSWER_SECONDS, flags=flags)


def faults_of(attack, run):
    """The forbidden things that the client did."""
    before, after = run.codes[:attack.fails], run.codes[attack.fails:]
    return [fault for fault, is_there in (
        ("failed too early", any(before)),
        ("took it for good", after[0] >= 0),
        ("took what came behind it for good", attack.breaks and max(after) >= 0),
        ("too late", run.seconds > attack.seconds + MARGIN_SECONDS),
        ("too much memory", run.memory > MOST_MEMORY),
        ("a text that isn't one line", not all(answer["text"].isprintable() for answer in run.answers)),
    ) if is_there]


def attack_client(context, attack):
    with Host(context, attack.serve) as host:
        return run_client(host.port, flags=attack.flags)


@pytest.fixture(scope="module", name="context")
def make_context(tmp_path_factory):
    return server_context(tmp_path_factory.mktemp("server"))


def test_good_server_is_no_attack(context):
    """The well-behaved server that the attacks modify."""
    for flags in (0, wire.COMPRESS):
        with Host(context, with_nbd(flags=wire.WRITABLE | flags)) as host:
            run = run_client(host.port)
        assert run.codes == [0, 0, 0, 0], run
        assert [answer["result"] for answer in run.answers[1:4]] == [MIB, 0, MIB]


def check_all(context, attacks, chosen):
    """Runs all attacks at the same time, as some take a minute."""
    with concurrent.futures.ThreadPoolExecutor(len(chosen)) as pool:
        runs = list(pool.map(functools.partial(attack_client, context), chosen))
    wrong = {attack.name: (faults, run) for attack, run in zip(chosen, runs)
             if (faults := faults_of(attack, run))}
    assert not wrong, "\n".join(f"{name}: {what}" for name, what in wrong.items())
    for attack, run in zip(chosen, runs):
        attacks.note(attack.name, f"{CALLS[attack.fails]} fails with {run.codes[attack.fails]}, "
                                  f"all is over after {run.seconds:.1f} s")


def test_servers_without_tls_are_left(attacks):
    check_all(None, attacks, [Attack("silence for TLS", served(be_silent), OPEN, OPEN_SECONDS),
                              Attack("the end for TLS", served(hang_up), OPEN),
                              Attack("noise for TLS", served(send(os.urandom(1 << 16))), OPEN),
                              Attack("a byte every two seconds for TLS",
                                     served(dribble(b"\x16\3\3\0\x7a" + bytes(99), 2)), OPEN, OPEN_SECONDS)])


def test_bad_servers_are_left(context, attacks):
    check_all(context, attacks, [*attacks_on_opening(), *attacks_on_the_stream(), *attacks_on_requests(),
                                 *attacks_on_digests()])


# A man in the middle, between the real client and the real server.

def relayed(port, image, verdict=None):
    """Forwards the client's handshake messages over a connection of its own, and returns the server's
    verdict, or `verdict` if given."""
    @served
    def serve(victim):
        with contextlib.closing(Attacker(port, image)) as server:
            hello = wire.receive_message(victim)
            server.send_hello(hello)
            victim.send(server.transcript[len(hello):])
            answer = server.send_proof(wire.receive_message(victim))
            assert answer.code == wire.NO_ACCESS
            victim.send(verdict or wire.refusal(answer.code, answer.text))
            raise Silence
    return serve


def test_relayed_connection_carries_nothing(context, attacks):
    """A man in the middle with a certificate of his own: the server rejects the forwarded proof of the
    client, and he has none that the client accepts."""
    lie = VERDICT_HEAD + os.urandom(wire.PROOF)
    with Scene() as scene:
        for name, verdict, code in (("refusal handed on", None, wire.NO_ACCESS),
                                    ("verdict made up", lie, -errno.EPROTO)):
            with Host(context, relayed(scene.port, scene.image, verdict)) as host:
                run = run_client(host.port, scene.image)
            assert run.codes[OPEN] == code and max(run.codes) < 0, run
            attacks.note(f"TLS relayed, {name}", f"open fails with {run.codes[OPEN]}")
        scene.check_unharmed()
        good = run_client(scene.port, scene.image)
        assert good.codes == [0, 0, 0, 0], good
        assert scene.content()[:MIB] == b"w" * MIB
