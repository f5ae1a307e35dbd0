"""Writers of the second transport that neither continue nor disconnect: they must not block an image for
ever.

The outcomes are written to attacks-zephane-dead.txt beside the programs.
"""
import concurrent.futures
import contextlib
import json
import subprocess
import time

import zephane_nbd as nbd
import zephane_wire as wire
from lab.commands import run
from lab.daemon import program
from lab.services import wait_until
from zephane_scene import OTHER_SIZE

LIMIT_SECONDS = 60 # the server's limit for a peer that neither reads nor sends
MARGIN_SECONDS = 10
LENGTH = 4096


def is_busy(scene, image):
    """Whether the image has another writer."""
    with scene.attacker(image) as attacker:
        return attacker.shake_hands().code == wire.BUSY


@contextlib.contextmanager
def cut_off(port):
    """Drops packets from and to a local port."""
    run("nft", f"""add table inet cut
        add chain inet cut lost {{ type filter hook input priority 0; }}
        add rule inet cut lost tcp sport {port} drop
        add rule inet cut lost tcp dport {port} drop""")
    try:
        yield
    finally:
        run("nft", "delete table inet cut")


def seconds_until_free(scene, image):
    """The seconds until another writer is admitted."""
    begin = time.monotonic()
    wait_until(lambda: not is_busy(scene, image), LIMIT_SECONDS + MARGIN_SECONDS, "the image free again")
    return time.monotonic() - begin


def firewall_writer(scene):
    """A writer whose machine has lost its network."""
    with scene.owner() as (attacker, _):
        with cut_off(attacker.connection.socket.getsockname()[1]):
            return seconds_until_free(scene, scene.image)


def stop_reading(scene):
    """A writer that sends requests and doesn't read the answers."""
    with scene.owner(scene.other) as (_, image):
        for _ in range(16):
            image.request(nbd.READ, 0, OTHER_SIZE)
        return seconds_until_free(scene, scene.other)


def test_killed_writer_is_gone_at_once(scene, attacks):
    """The real client is killed in the middle of a session."""
    image = scene.image
    with subprocess.Popen([program("ZephaneProbe"), "127.0.0.1", str(scene.port), image.path,
                           str(image.volume_id), str(wire.WRITABLE), image.secret],
                          stdin=subprocess.PIPE, stdout=subprocess.PIPE) as writer:
        writer.stdin.write(f"open\nwrite {LENGTH}\n".encode())
        writer.stdin.flush()
        assert [json.loads(writer.stdout.readline())["code"] for _ in range(2)] == [0, 0]
        assert is_busy(scene, image)
        writer.kill()
    with scene.owner():
        assert scene.content()[:LENGTH] == b"w" * LENGTH
    scene.note_content()
    scene.check_unharmed()
    attacks.note("a writer killed", "the next one let in at once, what was acknowledged is there")


def test_dead_writers_are_found(scene, attacks):
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        jobs = {job.__name__: pool.submit(job, scene) for job in (firewall_writer, stop_reading)}
    for name, job in jobs.items():
        attacks.note(f"a writer that is dead: {name}", f"ended after {job.result():.0f} s")
    scene.check_unharmed()
